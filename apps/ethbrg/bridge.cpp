#include "host.h"

#include <CLI/CLI.hpp>

namespace ethbrg {
void AddBridgeCommands(CLI::App&, CommonOptions&, std::function<int()>*) {}
}  // namespace ethbrg
