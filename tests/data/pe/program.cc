// An ordinary Windows program, linked with its runtime, to carry a version
// resource in a real image layout.
#include <cstdio>

int main() {
  std::puts("version resource test program");
  return 0;
}
