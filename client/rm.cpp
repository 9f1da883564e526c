// Placeholder until this command is built.
#include "client/client.hpp"

int rm_cmd(int, char **) { return notAvailableYet("rm"); }
