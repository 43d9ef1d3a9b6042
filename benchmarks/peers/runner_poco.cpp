// POCO: Process::launch with one pipe for both outputs, copied to a string.

#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#include <Poco/StreamCopier.h>

#include "../Contestant.h"

int main(int argc, char** argv) {
  const auto run = bench::runnerArguments(argc, argv);
  return bench::serve([&] {
    Poco::Pipe pipe;
    const Poco::ProcessHandle handle =
        Poco::Process::launch(run.program, run.arguments, run.directory, nullptr, &pipe, &pipe);
    Poco::PipeInputStream stream(pipe);
    std::string output;
    Poco::StreamCopier::copyToString(stream, output);
    if (handle.wait() != 0) bench::fail("the program failed");
    return output.size();
  });
}
