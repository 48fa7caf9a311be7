#pragma once

#include "AudioInput.h"

#include <QAudioDevice>
#include <QAudioFormat>
#include <QPointer>

#include <memory>

class QAudioSource;
class QIODevice;

// The default microphone through Qt Multimedia. Asks for 16 kHz mono (float, then 16-bit) and takes
// the device's preferred format when it offers neither; the capture path resamples.
class MicrophoneInput : public AudioInput
{
    Q_OBJECT

public:
    explicit MicrophoneInput(QObject *parent = nullptr);
    ~MicrophoneInput() override;

    void start() override;
    void stop() override;

    // The format a device will be opened with.
    static QAudioFormat chooseFormat(const QAudioDevice &device);

private:
    void readAvailable();

    std::unique_ptr<QAudioSource> m_source;
    QPointer<QIODevice> m_io;
    QAudioFormat m_format;
};
