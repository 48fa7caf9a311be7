#include "CliCommands.h"

#include "AskCommand.h"
#include "ChatCommand.h"
#include "ConfigCommand.h"
#include "DoctorCommand.h"
#include "ListenCommand.h"
#include "MCPCommand.h"
#include "MemoryCommand.h"
#include "ModelsCommand.h"
#include "RecognitionModelCommand.h"
#include "SayCommand.h"
#include "TestKeyCommand.h"
#include "VoicesCommand.h"

std::vector<std::unique_ptr<CliCommand>> allCliCommands()
{
    std::vector<std::unique_ptr<CliCommand>> commands;
    commands.push_back(std::make_unique<AskCommand>());
    commands.push_back(std::make_unique<ChatCommand>());
    commands.push_back(std::make_unique<ModelsCommand>());
    commands.push_back(std::make_unique<TestKeyCommand>());
    commands.push_back(std::make_unique<SayCommand>());
    commands.push_back(std::make_unique<VoicesCommand>());
    commands.push_back(std::make_unique<ConfigCommand>());
    commands.push_back(std::make_unique<MemoryCommand>());
    commands.push_back(std::make_unique<MCPCommand>());
    commands.push_back(std::make_unique<ListenCommand>());
    commands.push_back(std::make_unique<RecognitionModelCommand>());
    commands.push_back(std::make_unique<DoctorCommand>());
    return commands;
}
