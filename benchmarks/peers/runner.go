// Go: exec.Cmd.CombinedOutput, with the output validated as UTF-8 when VARN_BENCH_UTF8 is set.
package main

import (
	"fmt"
	"os"
	"os/exec"
	"strconv"
	"syscall"
	"time"
	"unicode/utf8"
)

func processor() time.Duration {
	var usage syscall.Rusage
	syscall.Getrusage(syscall.RUSAGE_SELF, &usage)
	return time.Duration(usage.Utime.Nano() + usage.Stime.Nano())
}

func run() int {
	command := exec.Command(os.Args[3], os.Args[4:]...)
	command.Dir = os.Args[2]
	output, err := command.CombinedOutput()
	if err != nil {
		panic(err)
	}
	if os.Getenv("VARN_BENCH_UTF8") != "" && !utf8.Valid(output) {
		panic("not UTF-8")
	}
	return len(string(output))
}

func main() {
	size, _ := strconv.Atoi(os.Args[1])
	touched := make([]byte, size)
	for at := 0; at < size; at += 4096 {
		touched[at] = 1
	}
	for count := 0; ; {
		if _, err := fmt.Scan(&count); err != nil {
			break
		}
		before, began, length := processor(), time.Now(), 0
		for ; count > 0; count-- {
			length = run()
		}
		fmt.Println(time.Since(began).Nanoseconds(), (processor() - before).Nanoseconds(), length)
	}
	if size > 0 && touched[0] == 0 {
		panic("untouched")
	}
}
