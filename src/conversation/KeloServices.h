#pragma once

#include <QObject>

class AppSettings;
class BackgroundExecutionManager;
class ConversationMemoryStore;
class MCPClient;
class SpeechRecognizer;
class SpeechSynthesizer;
class WebSkillService;
class ZenAPIService;

// The long-lived services one conversation uses, built together so that the store, the turn and the
// command line share the same instances.
class KeloServices : public QObject
{
    Q_OBJECT

public:
    explicit KeloServices(QObject *parent = nullptr);
    ~KeloServices() override;

    AppSettings *const settings;
    ZenAPIService *const zen;
    SpeechRecognizer *const recognizer;
    SpeechSynthesizer *const synthesizer;
    WebSkillService *const web;
    MCPClient *const mcp;
    ConversationMemoryStore *const memory;
    BackgroundExecutionManager *const backgroundExecution;
};
