// macOS: the system lists the children of a process.

#include "Children.h"

#include <libproc.h>
#include <unistd.h>

namespace VarnScripts {

std::vector<pid_t> children() {
  // A host has one script at a time; the room is for children that it was started with.
  std::vector<pid_t> children(1024);
  const int count = ::proc_listchildpids(::getpid(), children.data(),
                                         static_cast<int>(children.size() * sizeof(pid_t)));
  if (count <= 0) return {};
  children.resize(static_cast<std::size_t>(count) < children.size()
                      ? static_cast<std::size_t>(count)
                      : children.size());
  std::erase_if(children, [](pid_t child) { return child <= 0; });
  return children;
}

}  // namespace VarnScripts
