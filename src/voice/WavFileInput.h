#pragma once

#include "AudioInput.h"
#include "WavFile.h"

#include <QTimer>

// Plays a WAV file into the capture path in buffers of 1,024 frames, as a microphone would.
// `speed` 1.0 keeps real time; larger values feed faster (tests, the command line).
class WavFileInput : public AudioInput
{
    Q_OBJECT

public:
    explicit WavFileInput(WavFile wav, double speed = 1.0, QObject *parent = nullptr);

    void start() override;
    void stop() override;

    bool isRunning() const { return m_timer.isActive(); }

private:
    void deliverNext();

    WavFile m_wav;
    qsizetype m_nextFrame = 0;
    QTimer m_timer;
};
