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
        const QString rest = "Ține apăsat pentru a vorbi", search = "Caut pe internet…";
        QTest::newRow("at rest") << Inputs { rest } << "Pregătit" << rest;
        QTest::newRow("listening shows the words so far")
            << Inputs { rest, search, " cât e ceasul ", true, true } << "Ascult"
            << "cât e ceasul";
        QTest::newRow("listening before any word") << Inputs { "gata", {}, {}, false, true } << "Ascult"
                                                   << "gata";
        QTest::newRow("web search") << Inputs { rest, search, {}, true } << "Caut" << search;
        QTest::newRow("syncing skills is work, not search")
            << Inputs { rest, "Sincronizez skillurile…", {}, true } << "Lucrez"
            << "Sincronizez skillurile…";
        QTest::newRow("a turn") << Inputs { "Companion activ", {}, {}, true } << "Mă gândesc"
                                << "Companion activ";
        QTest::newRow("preparing the voice")
            << Inputs { "Pregătesc vocea…", {}, {}, false, false, false, true } << "Vorbesc"
            << "Pregătesc vocea…";
    }

    void statusFollowsTheCompanionsState()
    {
        QFETCH(Inputs, inputs);
        QFETCH(QString, status);
        QFETCH(QString, detail);
        LiveActivityManager activity;
        activity.refresh(inputs);
        QCOMPARE(activity.status(), status);
        QCOMPARE(activity.detail(), detail);
        QCOMPARE(activity.active(), status != "Pregătit");
        QCOMPARE(activity.listening(), inputs.isListening);
        QCOMPARE(activity.speaking(), inputs.isSpeaking || inputs.isPreparingVoice);
    }

    void announcesOnlyRealChanges()
    {
        LiveActivityManager activity;
        QSignalSpy spy(&activity, &LiveActivityManager::changed);
        const Inputs speaking { "x", {}, {}, false, false, true };
        activity.refresh(speaking);
        activity.refresh(speaking);
        activity.setTitle("Kelo");
        QCOMPARE(spy.count(), 1);
        activity.setTitle("Companion");
        QCOMPARE(spy.count(), 2);
        QCOMPARE(activity.summary(), QString("Companion · Vorbesc\nx"));
    }
};

QTEST_GUILESS_MAIN(LiveActivityManagerTest)
#include "LiveActivityManagerTest.moc"
