// The terminal's size.
#include <kel/os.h>

#include <sys/ioctl.h>
#include <unistd.h>

int OSGetTerminalSize(unsigned short* cols, unsigned short* rows) {
  struct winsize size = {};
  const int result = ::ioctl(STDIN_FILENO, TIOCGWINSZ, &size);
  *cols = result == 0 ? size.ws_col : 80;
  *rows = result == 0 ? size.ws_row : 24;
  return result;
}
