#include "cli_common.hpp"

void add_dia_commands(CLI::App& /*app*/) {}
