// The least that a C++ program can be: it starts, says one line through the C++ library, and ends.

#include <iostream>

int main() {
  std::cout << "ready\n";
  return 0;
}
