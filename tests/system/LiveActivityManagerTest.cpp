#include "system/LiveActivityManager.h"

#include <QSignalSpy>
#include <QTest>

using Inputs = LiveActivityManager::Inputs;
Q_DECLARE_METATYPE(Inputs)

class LiveActivityManagerTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void statusFollowsTheCompanionsState_data()
    {
        QTest::addColumn<Inputs>("inputs");
        QTest::addColumn<QString>("status");
        QTest::addColumn<QString>("detail");
        QTest::addColumn<bool>("active");

        const QString rest = QStringLiteral("Ține apăsat pentru a vorbi");
        QTest::newRow("at rest") << Inputs { rest } << QStringLiteral("Pregătit") << rest << false;
        QTest::newRow("listening shows the words so far")
            << Inputs { rest, QStringLiteral("Caut pe internet…"), QStringLiteral(" cât e ceasul "), true, true }
            << QStringLiteral("Ascult") << QStringLiteral("cât e ceasul") << true;
        QTest::newRow("listening before any word")
            << Inputs { QStringLiteral("Kelo este gata"), {}, {}, false, true } << QStringLiteral("Ascult")
            << QStringLiteral("Kelo este gata") << true;
        QTest::newRow("web search") << Inputs { rest, QStringLiteral("Caut pe internet…"), {}, true }
                                    << QStringLiteral("Caut") << QStringLiteral("Caut pe internet…") << true;
        QTest::newRow("syncing skills is work, not search")
            << Inputs { rest, QStringLiteral("Sincronizez skillurile…"), {}, true } << QStringLiteral("Lucrez")
            << QStringLiteral("Sincronizez skillurile…") << true;
        QTest::newRow("a turn") << Inputs { QStringLiteral("Companion activ · poți continua și din fundal"), {}, {},
            true } << QStringLiteral("Mă gândesc")
                                << QStringLiteral("Companion activ · poți continua și din fundal") << true;
        QTest::newRow("preparing the voice")
            << Inputs { QStringLiteral("Pregătesc vocea…"), {}, {}, false, false, false, true }
            << QStringLiteral("Vorbesc") << QStringLiteral("Pregătesc vocea…") << true;
    }

    void statusFollowsTheCompanionsState()
    {
        QFETCH(Inputs, inputs);
        QFETCH(QString, status);
        QFETCH(QString, detail);
        QFETCH(bool, active);

        LiveActivityManager activity;
        activity.refresh(inputs);

        QCOMPARE(activity.status(), status);
        QCOMPARE(activity.detail(), detail);
        QCOMPARE(activity.active(), active);
        QCOMPARE(activity.listening(), inputs.isListening);
        QCOMPARE(activity.speaking(), inputs.isSpeaking || inputs.isPreparingVoice);
    }

    void announcesOnlyRealChanges()
    {
        LiveActivityManager activity;
        QSignalSpy spy(&activity, &LiveActivityManager::changed);
        const Inputs speaking { QStringLiteral("x"), {}, {}, false, false, true };

        activity.refresh(speaking);
        activity.refresh(speaking);
        QCOMPARE(spy.count(), 1);
        activity.setTitle(QStringLiteral("Kelo"));
        QCOMPARE(spy.count(), 1);
        activity.setTitle(QStringLiteral("Companion"));
        QCOMPARE(spy.count(), 2);
        QCOMPARE(activity.summary(), QStringLiteral("Companion · Vorbesc\nx"));
    }
};

QTEST_GUILESS_MAIN(LiveActivityManagerTest)
#include "LiveActivityManagerTest.moc"
