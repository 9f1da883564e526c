// Placeholder until this command is built.
#include "client/client.hpp"

int ls_cmd(int, char **) { return notAvailableYet("ls"); }
