#include "ParsedToml.h"

#include <unistd.h>

#include <exception>

#include "ExitStatus.h"
#include "StandardStreams.h"

namespace VarnScripts {
namespace {

/// The parser throws for want of memory from inside functions that may not throw, which terminates
/// the process. For as long as this lives, that is an ordered end.
class OrderlyEnd {
 public:
  OrderlyEnd() : before_(std::set_terminate(&end)) {}
  ~OrderlyEnd() { std::set_terminate(before_); }
  OrderlyEnd(const OrderlyEnd&) = delete;
  OrderlyEnd& operator=(const OrderlyEnd&) = delete;

 private:
  [[noreturn]] static void end() noexcept {
    writeOutOfMemory();
    ::_exit(kExitNotRun);
  }

  const std::terminate_handler before_;
};

}  // namespace

toml::table parsedToml(const std::string& text, const std::string& file) {
  const OrderlyEnd orderlyEnd;
  return toml::parse(text, file);
}

}  // namespace VarnScripts
