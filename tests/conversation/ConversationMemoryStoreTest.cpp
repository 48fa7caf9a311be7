#include "conversation/ConversationMemoryStore.h"

#include "TemporaryHome.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>

using namespace Qt::Literals::StringLiterals;
using Role = ChatMessage::Role;

class ConversationMemoryStoreTest : public QObject
{
    Q_OBJECT

    std::unique_ptr<TemporaryHome> m_home;

    QString memoryDir() const { return m_home->dataHome() + u"/Kelo"_s; }
    QString memoryFile() const { return memoryDir() + u"/conversation-memory.json"_s; }
    QJsonObject fileObject() const { return QJsonDocument::fromJson(readFile(memoryFile())).object(); }
    QStringList recoveredCopies() const
    {
        return QDir(memoryDir()).entryList({ u"conversation-memory.unreadable-*.json"_s }, QDir::Files);
    }

    static QList<ChatMessage> conversation(int count, int firstNumber = 0)
    {
        QList<ChatMessage> messages;
        for (int i = firstNumber; i < firstNumber + count; ++i)
            messages.append(ChatMessage::make(i % 2 == 0 ? Role::user : Role::assistant, u"mesaj %1"_s.arg(i)));
        return messages;
    }

    static QList<ChatMessage> withUsers(int users)
    {
        QList<ChatMessage> messages;
        for (int i = 0; i < users; ++i)
            messages << ChatMessage::make(Role::user, u"întrebare"_s)
                     << ChatMessage::make(Role::assistant, u"răspuns"_s) << ChatMessage::make(Role::system, u"notă"_s);
        return messages;
    }

    static QByteArray readFile(const QString &path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    void writeMemoryFile(const QByteArray &data) const
    {
        QDir().mkpath(memoryDir());
        QFile file(memoryFile());
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(data);
    }

private Q_SLOTS:
    void init() { m_home = std::make_unique<TemporaryHome>(); }
    void cleanup() { m_home.reset(); }

    // Due once four user messages have come since the last summary; system notes do not count.
    void refreshIsDueAfterFourNewUserMessages()
    {
        const std::tuple<int, int, bool> cases[]
            = { { 3, 0, false }, { 4, 0, true }, { 7, 4, false }, { 8, 4, true }, { 5, 9, false } };
        for (const auto &[users, summarized, due] : cases) {
            ConversationMemoryStore store;
            store.updateSummary(u"x"_s, withUsers(summarized));
            QVERIFY2(store.shouldRefreshSummary(withUsers(users)) == due,
                qPrintable(u"%1 of %2"_s.arg(users).arg(summarized)));
        }
    }

    // Written whole, owner-only, finished on close, read back after a restart; eighty messages at most.
    void theSnapshotSurvivesARestart()
    {
        ConversationMemoryStore store;
        const QList<ChatMessage> messages = conversation(3);
        store.updateSummary(u"  • îi place ceaiul\n"_s, messages);
        store.waitForWrites();
        QCOMPARE(fileObject().value("summary").toString(), u"• îi place ceaiul"_s);
        QCOMPARE(QDir(memoryDir()).entryList(QDir::Files | QDir::Hidden), QStringList { "conversation-memory.json" });
        const QFileDevice::Permissions permissions = QFile::permissions(memoryFile());
        QVERIFY(permissions.testFlags(QFileDevice::ReadOwner | QFileDevice::WriteOwner));
        QCOMPARE(permissions & (QFileDevice::ReadGroup | QFileDevice::ReadOther), QFileDevice::Permissions());

        auto closing = std::make_unique<ConversationMemoryStore>();
        closing->persist(messages.mid(1));
        closing.reset();
        ConversationMemoryStore reopened;
        QVERIFY(reopened.summary() == u"• îi place ceaiul"_s && reopened.summarizedUserCount() == 2);
        QCOMPARE(reopened.messages(), messages.mid(1));
        QVERIFY(reopened.recoveredCopyPath().isEmpty() && recoveredCopies().isEmpty());

        const QList<ChatMessage> eightyOne = conversation(81, 100);
        reopened.persist(eightyOne);
        reopened.waitForWrites();
        QCOMPARE(reopened.messages(), eightyOne.mid(1));
        QVERIFY(fileObject().value("messages").toArray().size() == 80
            && fileObject()["messages"][0]["text"] == "mesaj 101");
        reopened.updateSummary(u"rezumat"_s, withUsers(40));
        QVERIFY(reopened.summarizedUserCount() == 40 && reopened.messages().size() == 80);
    }

    // Writes land in order; clearing forgets everything; a failed save is reported.
    void writesLandInOrderClearingForgetsAndFailuresAreTold()
    {
        ConversationMemoryStore store;
        QSignalSpy changed(&store, &ConversationMemoryStore::summaryChanged);
        for (int round = 0; round < 20; ++round) {
            store.persist(conversation(80, round));
            if (round % 5 == 4)
                store.clearAll();
        }
        store.waitForWrites();
        QVERIFY(!QFile::exists(memoryFile()));
        for (int round = 0; round < 20; ++round)
            store.persist(conversation(3, round));
        store.clearAll();
        store.updateSummary(u"ultimul"_s, conversation(2, 7));
        store.waitForWrites();
        QCOMPARE(fileObject().value("summary").toString(), u"ultimul"_s);
        QCOMPARE(fileObject().value("messages")[0]["text"].toString(), u"mesaj 7"_s);

        changed.clear();
        store.clearAll();
        store.clearAll();
        store.waitForWrites();
        QCOMPARE(changed.size(), 1);
        QVERIFY(!QFile::exists(memoryFile()));
        QVERIFY(store.summary().isEmpty() && store.messages().isEmpty() && store.summarizedUserCount() == 0);

        QDir().mkpath(memoryFile());
        ConversationMemoryStore blocked;
        QSignalSpy reported(&blocked, &ConversationMemoryStore::saveErrorChanged);
        blocked.persist(conversation(2));
        blocked.waitForWrites();
        QVERIFY2(blocked.saveError().contains(u"nu a putut fi citit"_s), qPrintable(blocked.saveError()));
        QCOMPARE(reported.size(), 1);
        QVERIFY(QFileInfo(memoryFile()).isDir());

        // A write that fails is told; the next one that works clears it.
        QVERIFY(QDir(memoryFile()).removeRecursively());
        ConversationMemoryStore later;
        QVERIFY(QDir().mkpath(memoryFile()));
        later.persist(conversation(1));
        later.waitForWrites();
        QVERIFY(!later.saveError().isEmpty());
        QVERIFY(QDir(memoryFile()).removeRecursively());
        later.persist(conversation(1));
        later.waitForWrites();
        QCOMPARE(later.saveError(), QString());
    }

    // Eighty huge messages would make a 48 MB file: texts are cut and old messages go, so it reads back.
    void whatIsWrittenCanAlwaysBeReadBack()
    {
        const QString huge(300'000, QChar(u'ă'));
        QList<ChatMessage> messages;
        for (int i = 0; i < 80; ++i)
            messages.append(ChatMessage::make(i % 2 ? Role::assistant : Role::user, QString::number(i) + huge));
        {
            ConversationMemoryStore store;
            store.updateSummary(huge, messages);
            store.waitForWrites();
            QCOMPARE(store.saveError(), QString());
        }
        QVERIFY(QFileInfo(memoryFile()).size() <= 16 * 1024 * 1024);
        const ConversationMemoryStore reloaded;
        QCOMPARE(reloaded.recoveredCopyPath(), QString());
        QVERIFY(reloaded.messages().size() > 10 && reloaded.messages().size() < 80);
        QVERIFY(reloaded.messages().constLast().text.startsWith(u"79ăă"_s));
        QCOMPARE(reloaded.messages().constLast().text.size(), 200'001);
        QCOMPARE(reloaded.summary().size(), 200'001);
    }

    // A damaged file, or one with unreadable messages, is kept aside first; a 33-bit count is not damage.
    void unreadableFileIsKeptAsideBeforeAnyWrite_data()
    {
        QTest::addColumn<QByteArray>("contents");
        QTest::addColumn<QString>("summary");
        QTest::addColumn<QString>("kept"); // the text of the one message still read, if any
        QTest::addColumn<qint64>("count");
        const auto damaged = [](const char *name, const QByteArray &contents) {
            QTest::newRow(name) << contents << QString() << QString() << qint64(0);
        };
        damaged("truncated", "{\"summary\":\"abc\",\"messages\":[{\"id\":");
        damaged("array", "[]");
        damaged("empty", "");
        damaged("invalid UTF-8", "{\"summary\":\"\xff\xfe\",\"messages\":[],\"summarizedUserCount\":0}");
        damaged("summary not text", R"({"summary":5,"messages":[],"summarizedUserCount":0})");
        damaged("messages not a list", R"({"summary":"","messages":{},"summarizedUserCount":0})");
        damaged("count missing", R"({"summary":"","messages":[]})");
        damaged("count negative", R"({"summary":"","messages":[],"summarizedUserCount":-2})");
        damaged("count fractional", R"({"summary":"","messages":[],"summarizedUserCount":1.5})");
        damaged("count as text", R"({"summary":"","messages":[],"summarizedUserCount":"3"})");
        QTest::newRow("unreadable messages, a count beyond 32 bits")
            << QByteArray(R"({"summary":"• s","messages":[{"role":"user","text":"păstrat"},{"role":"robot","text":"x"},
                42,null,{"role":"assistant"},{"role":"user","text":5},{"text":"x"}],"summarizedUserCount":4294967301})")
            << u"• s"_s << u"păstrat"_s << Q_INT64_C(4294967301);
    }

    void unreadableFileIsKeptAsideBeforeAnyWrite()
    {
        QFETCH(QByteArray, contents);
        QFETCH(QString, kept);
        QFETCH(qint64, count);
        writeMemoryFile(contents);
        ConversationMemoryStore store;
        QTEST(store.summary(), "summary");
        QCOMPARE(store.messages().size(), qsizetype(!kept.isEmpty()));
        QCOMPARE(store.messages().value(0).text, kept);
        QCOMPARE(store.summarizedUserCount(), count);
        QCOMPARE(recoveredCopies().size(), 1);
        QCOMPARE(store.recoveredCopyPath(), memoryDir() + QLatin1Char('/') + recoveredCopies().first());
        QVERIFY(recoveredCopies().first().contains(QDate::currentDate().toString("yyyyMMdd")));
        store.persist(conversation(2));
        store.waitForWrites();
        QCOMPARE(readFile(store.recoveredCopyPath()), contents);
        QCOMPARE(fileObject().value("messages").toArray().size(), 2);
        QCOMPARE(fileObject().value("summarizedUserCount").toInteger(), count);

        writeMemoryFile(contents + "!"); // another, in the same second, is kept under a name of its own
        ConversationMemoryStore again;
        QCOMPARE(recoveredCopies().size(), 2);
        QCOMPARE(readFile(again.recoveredCopyPath()), contents + "!");
    }
};

QTEST_GUILESS_MAIN(ConversationMemoryStoreTest)
#include "ConversationMemoryStoreTest.moc"
