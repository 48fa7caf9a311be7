#include "LiveActivityManager.h"

LiveActivityManager::LiveActivityManager(QObject *parent)
    : QObject(parent)
{
    refresh({});
}

void LiveActivityManager::refresh(const Inputs &inputs)
{
    const QString toolStatus = inputs.toolStatus.trimmed();
    const QString transcript = inputs.transcript.trimmed();
    QString status;
    QString detail = inputs.activityText;
    // Same precedence as the orb: listening first, then tools, the turn, and the voice.
    if (inputs.isListening) {
        status = QStringLiteral("Ascult");
        if (!transcript.isEmpty())
            detail = transcript;
    } else if (!toolStatus.isEmpty()) {
        status = toolStatus.contains(QLatin1String("caut"), Qt::CaseInsensitive) ? QStringLiteral("Caut")
                                                                                 : QStringLiteral("Lucrez");
        detail = toolStatus;
    } else if (inputs.isThinking) {
        status = QStringLiteral("Mă gândesc");
    } else if (inputs.isSpeaking || inputs.isPreparingVoice) {
        status = QStringLiteral("Vorbesc");
    } else {
        status = QStringLiteral("Pregătit");
    }
    const bool listening = inputs.isListening;
    const bool speaking = inputs.isSpeaking || inputs.isPreparingVoice;
    const bool active = listening || speaking || inputs.isThinking || !toolStatus.isEmpty();

    if (status == m_status && detail == m_detail && listening == m_listening && speaking == m_speaking
        && active == m_active)
        return;
    m_status = status;
    m_detail = detail;
    m_listening = listening;
    m_speaking = speaking;
    m_active = active;
    Q_EMIT changed();
}

void LiveActivityManager::setTitle(const QString &title)
{
    if (title == m_title)
        return;
    m_title = title;
    Q_EMIT changed();
}

QString LiveActivityManager::summary() const
{
    QString text = m_title + QStringLiteral(" · ") + m_status;
    if (!m_detail.isEmpty())
        text += QLatin1Char('\n') + m_detail;
    return text;
}
