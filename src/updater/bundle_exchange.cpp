// qor-exchange OLD NEW: swaps two folders of one filesystem in a single step
// (renameat2 with RENAME_EXCHANGE), so each path holds one complete folder at
// every moment. The install script swaps the verified copy of a new bundle
// with the installed one through it. Exits 0 on success; otherwise prints
// the reason and exits non-zero with both folders untouched.
#include <fcntl.h>
#include <stdio.h>
#include <string.h>

#include <cerrno>

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: qor-exchange FOLDER FOLDER\n");
    return 2;
  }
  if (renameat2(AT_FDCWD, argv[1], AT_FDCWD, argv[2], RENAME_EXCHANGE) != 0) {
    fprintf(stderr, "cannot exchange %s and %s: %s\n", argv[1], argv[2], strerror(errno));
    return 1;
  }
  return 0;
}
