#include "cli_common.hpp"

void add_stream_command(CLI::App& /*app*/) {}
