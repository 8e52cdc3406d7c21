#include "cli_common.hpp"

void add_yolo_commands(CLI::App& /*app*/) {}
