#pragma once

#include "LocalVoice.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QVoice>

class QTextToSpeech;

// Owns the Qt TextToSpeech engine on speech-dispatcher inside a thread of its own. libspeechd waits
// for the daemon's reply on every call, and a daemon whose audio output hangs never replies: were
// the engine on the GUI thread, one stop() would freeze Kelo. Here it freezes only this thread,
// which LocalSynthesizer then abandons. Every slot runs on the host's thread.
class SpeechdEngineHost : public QObject
{
    Q_OBJECT

public:
    SpeechdEngineHost();
    ~SpeechdEngineHost() override;

public Q_SLOTS:
    // Builds the engine (seconds: speech-dispatcher starts with its first client) and reports
    // ready() or unavailable().
    void start();
    // An empty or unknown voice identifier speaks with the engine's Romanian default.
    void say(const QString &text, const QString &voiceIdentifier, double qtRate);
    void stop();

Q_SIGNALS:
    // Romanian voices in the engine's order.
    void ready(const QList<LocalVoice> &romanianVoices);
    void unavailable(const QString &reason);
    // QTextToSpeech::State as an int, and the engine's error text for the error state.
    void stateChanged(int state, const QString &errorString);

private:
    QList<LocalVoice> loadRomanianVoices();

    QTextToSpeech *m_engine = nullptr;
    QHash<QString, QVoice> m_voicesByIdentifier;
};
