#pragma once

#include "DoctorCheck.h"

#include <QCoroTask>
#include <QList>
#include <QObject>
#include <QVariantList>
#include <QtQml/qqmlregistration.h>

class ChatStore;
class MCPClient;
class MCPServerConfig;

// Checks everything Kelo needs, one line each: the model service's key, the keychain, the speaker
// and the microphone, speech-dispatcher and its Romanian voice, the recognition model and its
// checksum, every enabled MCP server, whether speech can interrupt an answer, and who opens kelo://
// addresses. Each check asks the class that does the real work, so a line reports exactly what the
// app will meet.
class SystemDoctor : public QObject
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("SystemDoctor belongs to the app")

    Q_PROPERTY(QVariantList checks READ checkList NOTIFY checksChanged)
    Q_PROPERTY(bool running READ running NOTIFY runningChanged)
    Q_PROPERTY(bool readyForVoice READ readyForVoice NOTIFY checksChanged)

public:
    // MCP servers and the desktop query are given this long: a doctor must not hang.
    static constexpr int probeTimeoutMs = 5'000;

    explicit SystemDoctor(ChatStore *store, QObject *parent = nullptr);
    ~SystemDoctor() override;

    // Every check, in order. `live` also asks the model service whether the key works.
    QCoro::Task<QList<DoctorCheck>> examine(bool live);
    // The settings screen's button: runs examine() and publishes the lines in `checks`.
    Q_INVOKABLE void start(bool live);

    QList<DoctorCheck> checks() const { return m_checks; }
    QVariantList checkList() const;
    bool running() const { return m_running; }
    bool readyForVoice() const { return !m_checks.isEmpty() && readyForVoice(m_checks); }
    static bool readyForVoice(const QList<DoctorCheck> &checks);

Q_SIGNALS:
    void checksChanged();
    void runningChanged();

private:
    QCoro::Task<DoctorCheck> checkServiceKey(bool live);
    DoctorCheck checkKeychain() const;
    static DoctorCheck checkSpeaker();
    static DoctorCheck checkMicrophone();
    QCoro::Task<DoctorCheck> checkLocalVoice();
    std::optional<DoctorCheck> checkCloudVoiceKey() const;
    QCoro::Task<DoctorCheck> checkRecognitionModel();
    QCoro::Task<QList<DoctorCheck>> checkMCPServers();
    static QCoro::Task<DoctorCheck> checkServer(MCPClient *client, MCPServerConfig server);
    static DoctorCheck checkVoiceBargeIn();
    static QCoro::Task<DoctorCheck> checkSchemeHandler();

    ChatStore *m_store;
    QList<DoctorCheck> m_checks;
    bool m_running = false;
};
