// macOS: the system lists the children of a process; their groups are asked for one by one.

#include "ChildGroups.h"

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

std::vector<pid_t> childGroups() {
  std::vector<pid_t> groups = children();
  std::erase_if(groups, [](pid_t child) { return ::getpgid(child) != child; });
  return groups;
}

}  // namespace VarnScripts
