#include "KeloServices.h"

#include "ConversationMemoryStore.h"
#include "ZenAPIService.h"
#include "settings/AppSettings.h"
#include "skills/MCPClient.h"
#include "skills/WebSkillService.h"
#include "system/BackgroundExecutionManager.h"
#include "voice/SpeechRecognizer.h"
#include "voice/SpeechSynthesizer.h"

KeloServices::KeloServices(QObject *parent)
    : QObject(parent)
    , settings(new AppSettings(this))
    , zen(new ZenAPIService(this))
    , recognizer(new SpeechRecognizer(this))
    , synthesizer(new SpeechSynthesizer(this))
    , web(new WebSkillService(this))
    , mcp(new MCPClient(this))
    , memory(new ConversationMemoryStore(this))
    , backgroundExecution(new BackgroundExecutionManager(this))
{
    // Renewed MCP tokens outlive this run.
    connect(mcp, &MCPClient::serverCredentialsChanged, settings, &AppSettings::updateMcpServerCredentials);
}

KeloServices::~KeloServices() = default;
