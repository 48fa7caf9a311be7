#pragma once

#include <QObject>
#include <QString>

// The companion's live status outside its window (the tray on a desktop): a title, a one-word
// status, a detail line and whether Kelo listens or speaks. A plain model; the app feeds it from
// the chat store and the speech service, and the tray shows it.
class LiveActivityManager : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QString title READ title NOTIFY changed)
    Q_PROPERTY(QString status READ status NOTIFY changed)
    Q_PROPERTY(QString detail READ detail NOTIFY changed)
    Q_PROPERTY(bool listening READ listening NOTIFY changed)
    Q_PROPERTY(bool speaking READ speaking NOTIFY changed)
    Q_PROPERTY(bool active READ active NOTIFY changed)

public:
    // What the store and the speech service publish, as far as the status line needs it.
    struct Inputs
    {
        QString activityText;
        QString toolStatus;
        QString transcript;
        bool isThinking = false;
        bool isListening = false;
        bool isSpeaking = false;
        bool isPreparingVoice = false;
    };

    explicit LiveActivityManager(QObject *parent = nullptr);

    QString title() const { return m_title; }
    QString status() const { return m_status; }
    QString detail() const { return m_detail; }
    bool listening() const { return m_listening; }
    bool speaking() const { return m_speaking; }
    // True while a conversation step runs (listening, a turn, a voice being prepared or spoken).
    bool active() const { return m_active; }

    // Derives every field from the published state; emits changed() only when something differs.
    void refresh(const Inputs &inputs);
    void setTitle(const QString &title);

    // "Kelo · Ascult" and, on a second line, the detail: the text of a tray tooltip.
    QString summary() const;

Q_SIGNALS:
    void changed();

private:
    QString m_title = QStringLiteral("Kelo");
    QString m_status;
    QString m_detail;
    bool m_listening = false;
    bool m_speaking = false;
    bool m_active = false;
};
