// Placeholder until this command is built.
#include "client/client.hpp"

int progress_cmd(int, char **) { return notAvailableYet("progress"); }
