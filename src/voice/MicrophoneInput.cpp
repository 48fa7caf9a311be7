#include "MicrophoneInput.h"

#include "AudioMath.h"
#include "SpeechRecognitionError.h"

#include <QAudioSource>
#include <QMediaDevices>

MicrophoneInput::MicrophoneInput(QObject *parent)
    : AudioInput(parent)
{ }

MicrophoneInput::~MicrophoneInput()
{
    stop();
}

QAudioFormat MicrophoneInput::chooseFormat(const QAudioDevice &device)
{
    QAudioFormat wanted;
    wanted.setSampleRate(16000);
    wanted.setChannelCount(1);
    for (auto sampleFormat : { QAudioFormat::Float, QAudioFormat::Int16 }) {
        wanted.setSampleFormat(sampleFormat);
        if (device.isFormatSupported(wanted))
            return wanted;
    }
    return device.preferredFormat();
}

void MicrophoneInput::start()
{
    stop();
    const QAudioDevice device = QMediaDevices::defaultAudioInput();
    if (device.isNull())
        throw SpeechRecognitionError(
            SpeechRecognitionError::Kind::audioFailure, QStringLiteral("Nu a fost găsit niciun microfon."));
    m_format = chooseFormat(device);
    m_source = std::make_unique<QAudioSource>(device, m_format);
    // About 1,024 frames per buffer, like a tap on the input node: the level moves smoothly.
    m_source->setBufferSize(m_format.bytesForFrames(1024) * 4);
    m_io = m_source->start();
    if (!m_io || m_source->error() != QAudio::NoError) {
        m_source.reset();
        throw SpeechRecognitionError(SpeechRecognitionError::Kind::audioFailure,
            QStringLiteral("Microfonul „%1” nu a putut fi deschis.").arg(device.description()));
    }
    connect(m_io, &QIODevice::readyRead, this, &MicrophoneInput::readAvailable);
    connect(m_source.get(), &QAudioSource::stateChanged, this, [this](QAudio::State state) {
        if (state == QAudio::StoppedState && m_source && m_source->error() != QAudio::NoError)
            Q_EMIT ended();
    });
}

void MicrophoneInput::readAvailable()
{
    if (!m_io)
        return;
    const QByteArray bytes = m_io->readAll();
    if (bytes.isEmpty())
        return;
    const QVector<float> samples = AudioMath::toFloat(bytes, m_format);
    if (!samples.isEmpty())
        Q_EMIT bufferCaptured(samples, m_format.sampleRate(), m_format.channelCount());
}

void MicrophoneInput::stop()
{
    if (!m_source)
        return;
    readAvailable();
    if (m_io)
        disconnect(m_io, nullptr, this, nullptr);
    m_source->disconnect(this);
    m_source->stop();
    m_source.reset();
    m_io = nullptr;
}
