// The kestil executable: one program, eleven commands.
#include "client/client.hpp"

int main(int argc, char **argv) { return kestil_main(argc, argv); }
