// Boost.Process: a child whose output goes into a future, as its tutorial has it.

#include <boost/asio.hpp>
#include <boost/process.hpp>
#include <future>

#include "../Contestant.h"

namespace bp = boost::process;

int main(int argc, char** argv) {
  const auto run = bench::runnerArguments(argc, argv);
  return bench::serve([&] {
    boost::asio::io_context context;
    std::future<std::string> output;
    bp::child child(run.program, bp::args(run.arguments), bp::start_dir(run.directory),
                    bp::std_in.close(), (bp::std_out & bp::std_err) > output, context);
    context.run();
    child.wait();
    if (child.exit_code() != 0) bench::fail("the program failed");
    return output.get().size();
  });
}
