// What the libraries behind downloads see of the environment when they are loaded and set up.

#pragma once

#include <vector>

namespace VarnScripts {

/// Hides from the libraries what the environment has for them, for as long as this lives. Scripts
/// inherit the environment whole, so it is as it was afterwards. For one thread, while no other one
/// asks for a variable.
class LibraryEnvironment {
 public:
  LibraryEnvironment();
  LibraryEnvironment(const LibraryEnvironment&) = delete;
  LibraryEnvironment& operator=(const LibraryEnvironment&) = delete;
  ~LibraryEnvironment();

 private:
  char** const all_;
  std::vector<char*> visible_;
};

}  // namespace VarnScripts
