// Placeholder until this command is built.
#include "client/client.hpp"

int report_cmd(int, char **) { return notAvailableYet("report"); }
