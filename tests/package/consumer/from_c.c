/* A program that sees only the installed tree, in C11. */
#include <kel/kel.h>

#include <errno.h>
#include <string.h>

int main(void) {
  char name[4];
  kelLogSet(NULL, KEL_LOG_NONE, 0);
  if (kelstrcpy(name, "abcd", sizeof name) != NULL || errno != ENOBUFS) return 1;
  return strcmp(kelLogLastMessageA(), "kelstrcpy: insufficient buffer, src:abcd, dst size=4");
}
