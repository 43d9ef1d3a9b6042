// Node: child_process.spawnSync. Its two outputs are two pipes; the child writes to the first.
const { spawnSync } = require("child_process");
const readline = require("readline");

const [touch, cwd, program, ...args] = process.argv.slice(2);
const touched = Buffer.alloc(Number(touch), 1);

readline.createInterface({ input: process.stdin }).on("line", (line) => {
  let length = 0;
  const usage = process.cpuUsage();
  const began = process.hrtime.bigint();
  for (let count = Number(line); count > 0; --count) {
    const result = spawnSync(program, args, {
      cwd,
      stdio: ["ignore", "pipe", "pipe"],
      maxBuffer: Infinity,
    });
    if (result.status !== 0) throw new Error("the program failed");
    length = result.stdout.length;
  }
  const wall = process.hrtime.bigint() - began;
  const used = process.cpuUsage(usage);
  console.log(`${wall} ${(used.user + used.system) * 1000} ${length}`);
});
