#pragma once

#include <QMetaType>
#include <QString>

// One thing Kelo needs, as `kelo doctor` and the settings screen report it: fine, or what to do.
class DoctorCheck
{
    Q_GADGET
    Q_PROPERTY(QString title MEMBER title CONSTANT)
    Q_PROPERTY(QString detail MEMBER detail CONSTANT)
    Q_PROPERTY(bool ok MEMBER ok CONSTANT)
    Q_PROPERTY(bool neededForVoice MEMBER neededForVoice CONSTANT)

public:
    QString title;
    // When ok, what was found; otherwise what to do, in Romanian.
    QString detail;
    bool ok = false;
    // A voice turn (listen, ask the model, speak the answer) cannot happen without it.
    bool neededForVoice = false;

    // "OK  title: detail" or "!!  title: detail".
    QString line() const
    {
        return (ok ? QStringLiteral("OK  ") : QStringLiteral("!!  ")) + title + QStringLiteral(": ") + detail;
    }
};

Q_DECLARE_METATYPE(DoctorCheck)
