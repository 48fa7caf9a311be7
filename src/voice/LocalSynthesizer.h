#pragma once

#include "LocalVoice.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QQueue>
#include <QTimer>
#include <QVoice>

#include <memory>

class QTextToSpeech;
class QThread;

// The desktop's own synthesiser (Qt TextToSpeech on speech-dispatcher with eSpeak NG) driven one
// utterance at a time, so that each utterance gets its own start, finish and cancel events, its
// rate and its pauses before and after.
//
// The engine's constructor blocks for seconds while speech-dispatcher starts, so it is built on a
// worker thread the first time it is needed; utterances queued meanwhile wait for it. Without a
// sound server speech-dispatcher may report "speaking" forever, so every utterance has a deadline.
// When speech-dispatcher is missing or broken, failed() says so in Romanian: there is no other
// local engine to fall back to (flite speaks English only).
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
        // Empty, or unknown to the engine: the first Romanian voice.
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

    // Installed voices whose language starts with "ro", best quality first, then by name.
    QList<LocalVoice> romanianVoices() const { return m_romanianVoices; }

    void enqueue(const Utterance &utterance);
    // Drops the queue and silences the engine at once; no events follow for what was dropped.
    void stopAll();

    // How long one utterance may take before the engine is considered stuck.
    static int deadlineMs(const Utterance &utterance);

Q_SIGNALS:
    void engineStateChanged();
    void didStart(quint64 id);
    void didFinish(quint64 id);
    // The engine cannot speak (missing, broken or stuck); everything queued was dropped.
    void failed(const QString &description);

private:
    void engineBuilt();
    void loadRomanianVoices();
    void startNext();
    void speakCurrent();
    void onEngineStateChanged(int state);
    void finishCurrent();
    void fail(const QString &description);
    void applyVoice(const QString &identifier);

    EngineState m_engineState = EngineState::notStarted;
    QString m_unavailableReason;
    QThread *m_builder = nullptr;
    // Written by the builder thread, read here only after it finished.
    QTextToSpeech *m_builtEngine = nullptr;
    QTextToSpeech *m_engine = nullptr;
    QList<LocalVoice> m_romanianVoices;
    QHash<QString, QVoice> m_voicesByIdentifier;

    QQueue<Utterance> m_queue;
    std::unique_ptr<Utterance> m_current;
    bool m_currentStarted = false;
    QTimer m_delay;
    QTimer m_deadline;
};
