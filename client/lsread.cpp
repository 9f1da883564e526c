// The lsread command: prints a saved listing file again.
#include "client/client.hpp"

#include <cstdio>

#include "listing/listing.hpp"

// Only the first argument is looked at; the printer's result is the exit status.
int lsread_cmd(int argc, char **argv) {
  if (argc < 2) {
    puts("Usage: lsread [-upload <mission>] <input file>");
    return 0;
  }
  return print_dirlisting(argv[1]);
}
