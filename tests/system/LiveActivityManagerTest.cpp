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
        const QString rest = "Ține apăsat pentru a vorbi", search = "Caut pe internet…",
                      sync = "Sincronizez skillurile…";
        QTest::newRow("at rest") << Inputs { rest } << QString("Pregătit") << rest;
        QTest::newRow("listening shows the words so far, before anything else")
            << Inputs { rest, search, " cât e ceasul ", true, true } << QString("Ascult") << QString("cât e ceasul");
        QTest::newRow("listening before any word")
            << Inputs { "gata", {}, {}, false, true } << QString("Ascult") << QString("gata");
        QTest::newRow("web search") << Inputs { rest, search, {}, true } << QString("Caut") << search;
        QTest::newRow("syncing skills is work, not search")
            << Inputs { rest, sync, {}, true } << QString("Lucrez") << sync;
        QTest::newRow("a turn") << Inputs { "Companion activ", {}, {}, true } << QString("Mă gândesc")
                                << QString("Companion activ");
        QTest::newRow("preparing the voice") << Inputs { "Pregătesc vocea…", {}, {}, false, false, false, true }
                                             << QString("Vorbesc") << QString("Pregătesc vocea…");
    }

    void statusFollowsTheCompanionsState()
    {
        QFETCH(Inputs, inputs);
        QFETCH(QString, status);
        QFETCH(QString, detail);
        LiveActivityManager activity;
        QSignalSpy changed(&activity, &LiveActivityManager::changed);
        activity.refresh(inputs);
        activity.refresh(inputs);
        activity.setTitle("Companion");
        activity.setTitle("Companion");
        QCOMPARE(changed.count(), 2); // only real changes are announced
        QCOMPARE(activity.summary(), "Companion · " + status + '\n' + detail);
        QCOMPARE(activity.status(), status);
        QCOMPARE(activity.detail(), detail);
        QCOMPARE(activity.active(), status != "Pregătit");
        QCOMPARE(activity.listening(), inputs.isListening);
        QCOMPARE(activity.speaking(), inputs.isSpeaking || inputs.isPreparingVoice);
    }
};

QTEST_GUILESS_MAIN(LiveActivityManagerTest)
#include "LiveActivityManagerTest.moc"
