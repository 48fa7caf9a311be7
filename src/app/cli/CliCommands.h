#pragma once

#include "CliCommand.h"

#include <memory>
#include <vector>

// Every subcommand of `kelo`, in the order `kelo --help` lists them.
std::vector<std::unique_ptr<CliCommand>> allCliCommands();
