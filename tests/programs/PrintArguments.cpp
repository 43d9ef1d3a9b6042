// Prints each of its arguments, the program's own name first, between brackets on a line of its
// own.

#include <cstdio>

int main(int count, char** arguments) {
  for (int index = 0; index < count; ++index) std::printf("[%s]\n", arguments[index]);
  return 0;
}
