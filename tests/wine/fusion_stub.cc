// Built with MinGW-w64 and copied into a prefix as Fusion360.exe: a Windows
// process that stays up until it is ended, so that the native build can find
// it in the Linux process table.
#include <windows.h>

int main() {
  for (int i = 0; i < 600; ++i) Sleep(100);
  return 0;
}
