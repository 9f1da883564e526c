// Placeholder until this command is built.
#include "client/client.hpp"

int lsread_cmd(int, char **) { return notAvailableYet("lsread"); }
