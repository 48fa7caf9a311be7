#pragma once

#include "LocalVoice.h"

#include <QList>
#include <QObject>
#include <QPointer>
#include <QQueue>
#include <QTimer>

#include <memory>

class QThread;
class SpeechdEngineHost;

// The desktop's own synthesiser (Qt TextToSpeech on speech-dispatcher with eSpeak NG) driven one
// utterance at a time, so that each utterance gets its own start and finish events, its rate and
// its pauses before and after.
//
// The engine lives on a thread of its own (see SpeechdEngineHost): its constructor blocks for
// seconds while speech-dispatcher starts, and a daemon without a working sound server reports
// "speaking" forever and stops answering. Every utterance therefore has a deadline; past it the
// engine and its thread are abandoned, failed() says so, and the next utterance starts a fresh
// engine. When speech-dispatcher is missing or broken, failed() says so in Romanian: there is no
// other local engine to fall back to.
class LocalSynthesizer : public QObject
{
    Q_OBJECT

public:
    struct Utterance
    {
        quint64 id = 0;
        QString text;
        // On the phone scale (0…1, 0.5 normal).
        double rate = 0.5;
        // Empty, or unknown to the engine: the first of romanianVoices().
        QString voiceIdentifier;
        int preDelayMs = 0;
        int postDelayMs = 0;
    };

    enum class EngineState { notStarted, starting, ready, unavailable };

    explicit LocalSynthesizer(QObject *parent = nullptr);
    ~LocalSynthesizer() override;

    // Starts building the engine in the background; harmless once started.
    void prepare();
    EngineState engineState() const { return m_engineState; }
    // Why the engine cannot speak (Romanian), when unavailable.
    QString unavailableReason() const { return m_unavailableReason; }

    // Installed voices whose language starts with "ro", best quality first, then by name
    // (case-insensitive, in the user's locale). Empty until the engine is ready.
    QList<LocalVoice> romanianVoices() const { return m_romanianVoices; }

    void enqueue(const Utterance &utterance);
    // Drops the queue and silences the engine at once; no events follow for what was dropped.
    void stopAll();

    // How long one utterance may take before the engine is considered stuck.
    static int deadlineMs(const Utterance &utterance);
    static constexpr int startDeadlineMs = 60'000;

Q_SIGNALS:
    void engineStateChanged();
    void didStart(quint64 id);
    void didFinish(quint64 id);
    // The engine cannot speak (missing, broken or stuck); everything queued was dropped.
    void failed(const QString &description);

private:
    void onReady(const QList<LocalVoice> &voices);
    void onUnavailable(const QString &reason);
    void onHostStateChanged(int state, const QString &errorString);
    void startNext();
    void speakCurrent();
    void finishCurrent();
    void fail(const QString &description);
    // Leaves a stuck engine and its thread behind, for good.
    void abandonEngine();
    void setEngineState(EngineState state);
    QString resolvedVoice(const QString &identifier) const;

    EngineState m_engineState = EngineState::notStarted;
    QString m_unavailableReason;
    QThread *m_thread = nullptr;
    QPointer<SpeechdEngineHost> m_host;
    QList<LocalVoice> m_romanianVoices;

    QQueue<Utterance> m_queue;
    std::unique_ptr<Utterance> m_current;
    bool m_currentStarted = false;
    QTimer m_delay;
    QTimer m_deadline;
};
