// Placeholder until this command is built.
#include "client/client.hpp"

int put_cmd(int, char **) { return notAvailableYet("put"); }
