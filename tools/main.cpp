// vemoproc: the library's families on real files, from a shell.
#include <iostream>

#include "cli_common.hpp"

int main(int argc, char** argv) {
  CLI::App app{
      "vemoproc: model pre- and post-processing on files (detection, vision inputs, "
      "speech-synthesis helpers, text streaming)"};
  app.require_subcommand(1);
  app.set_help_all_flag("--help-all", "Show help for every subcommand");
  add_yolo_commands(app);
  add_vision_commands(app);
  add_dia_commands(app);
  add_stream_command(app);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp& e) {
    return app.exit(e);
  } catch (const CLI::CallForAllHelp& e) {
    return app.exit(e);
  } catch (const CLI::ParseError& e) {
    // A usage error is one line, like every other error of the tool.
    std::cerr << "vemoproc: error: " << e.what() << " (see --help)\n";
    return e.get_exit_code();
  } catch (const std::exception& e) {
    std::cerr << "vemoproc: error: " << e.what() << "\n";
    return 1;
  }
  return 0;
}
