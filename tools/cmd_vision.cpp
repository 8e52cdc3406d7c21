#include "cli_common.hpp"

void add_vision_commands(CLI::App& /*app*/) {}
