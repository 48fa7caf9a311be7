#include "conversation/ConversationMemoryStore.h"

#include "TemporaryHome.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

namespace {

using Role = ChatMessage::Role;

QList<ChatMessage> conversation(int count, int firstNumber = 0)
{
    QList<ChatMessage> messages;
    for (int i = firstNumber; i < firstNumber + count; ++i)
        messages.append(ChatMessage::make(i % 2 == 0 ? Role::user : Role::assistant, u"mesaj %1"_s.arg(i)));
    return messages;
}

QList<ChatMessage> withUsers(int users)
{
    QList<ChatMessage> messages;
    for (int i = 0; i < users; ++i) {
        messages.append(ChatMessage::make(Role::user, u"întrebare"_s));
        messages.append(ChatMessage::make(Role::assistant, u"răspuns"_s));
        messages.append(ChatMessage::make(Role::system, u"notă"_s));
    }
    return messages;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void writeFile(const QString &path, const QByteArray &data)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(data);
}

QJsonObject fileObject(const QString &path)
{
    return QJsonDocument::fromJson(readFile(path)).object();
}

} // namespace

class ConversationMemoryStoreTest : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<TemporaryHome> m_home;
    QString memoryDir() const { return m_home->dataHome() + u"/Kelo"_s; }
    QString memoryFile() const { return memoryDir() + u"/conversation-memory.json"_s; }

    QStringList recoveredCopies() const
    {
        return QDir(memoryDir()).entryList({ u"conversation-memory.unreadable-*.json"_s }, QDir::Files);
    }

private Q_SLOTS:
    void init() { m_home = std::make_unique<TemporaryHome>(); }
    void cleanup() { m_home.reset(); }

    void refreshIsDueAfterFourNewUserMessages_data()
    {
        QTest::addColumn<int>("users");
        QTest::addColumn<int>("summarized");
        QTest::addColumn<bool>("due");
        QTest::newRow("3 of 0") << 3 << 0 << false;
        QTest::newRow("4 of 0") << 4 << 0 << true;
        QTest::newRow("7 of 4") << 7 << 4 << false;
        QTest::newRow("8 of 4") << 8 << 4 << true;
        QTest::newRow("fewer than covered") << 5 << 9 << false;
    }

    void refreshIsDueAfterFourNewUserMessages()
    {
        QFETCH(int, users);
        QFETCH(int, summarized);
        QFETCH(bool, due);
        ConversationMemoryStore store;
        store.updateSummary(u"x"_s, withUsers(summarized));
        QCOMPARE(store.summarizedUserCount(), summarized);
        QCOMPARE(store.shouldRefreshSummary(withUsers(users)), due);
    }

    void snapshotFileHasTheExpectedFormAndSurvivesARestart()
    {
        ConversationMemoryStore store;
        QCOMPARE(store.filePath(), memoryFile());
        QList<ChatMessage> messages = conversation(3);
        messages[0].createdAt = QDateTime(QDate(2001, 1, 1), QTime(0, 1, 0, 250), Qt::UTC);
        store.updateSummary(u"  • îi place ceaiul\n"_s, messages);
        store.waitForWrites();
        const double written
            = QDateTime(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC).secsTo(QDateTime::currentDateTimeUtc());

        const QJsonObject object = fileObject(memoryFile());
        const QStringList keys = object.keys();
        QCOMPARE(QSet<QString>(keys.cbegin(), keys.cend()),
            (QSet<QString> { "summary", "messages", "summarizedUserCount", "updatedAt" }));
        QCOMPARE(object.value("summary").toString(), u"• îi place ceaiul"_s);
        QCOMPARE(object.value("summarizedUserCount").toInteger(), 2);
        QVERIFY(qAbs(object.value("updatedAt").toDouble() - written) < 5);
        const QJsonObject first = object.value("messages").toArray().first().toObject();
        QCOMPARE(first.value("createdAt").toDouble(), 60.25);
        QCOMPARE(first.value("id").toString(), messages[0].idString());
        QCOMPARE(first.value("role").toString(), u"user"_s);
        QCOMPARE(first.value("text").toString(), u"mesaj 0"_s);

        // Written whole through a temporary file that is gone afterwards, readable by the owner only.
        QCOMPARE(QDir(memoryDir()).entryList(QDir::Files | QDir::Hidden), QStringList { "conversation-memory.json" });
        const QFileDevice::Permissions permissions = QFile::permissions(memoryFile());
        QVERIFY(permissions.testFlags(QFileDevice::ReadOwner | QFileDevice::WriteOwner));
        QCOMPARE(permissions & (QFileDevice::ReadGroup | QFileDevice::ReadOther), QFileDevice::Permissions());

        // Closing the store finishes its pending write.
        auto closing = std::make_unique<ConversationMemoryStore>();
        closing->persist(messages.mid(1));
        closing.reset();
        ConversationMemoryStore reopened;
        QCOMPARE(reopened.summary(), u"• îi place ceaiul"_s);
        QCOMPARE(reopened.summarizedUserCount(), 2);
        QCOMPARE(reopened.messages(), messages.mid(1));
        QVERIFY(reopened.recoveredCopyPath().isEmpty());
        QVERIFY(recoveredCopies().isEmpty());
    }

    void onlyTheLastEightyMessagesAreKept()
    {
        ConversationMemoryStore store;
        const QList<ChatMessage> eightyOne = conversation(81, 100);
        store.persist(eightyOne);
        store.waitForWrites();
        QCOMPARE(store.messages(), eightyOne.mid(1));
        const QJsonArray stored = fileObject(memoryFile()).value("messages").toArray();
        QCOMPARE(stored.size(), 80);
        QCOMPARE(stored.first().toObject().value("text").toString(), u"mesaj 101"_s);

        // The summary covers every user message it was built from, even those no longer kept.
        store.updateSummary(u"rezumat"_s, withUsers(40));
        QCOMPARE(store.summarizedUserCount(), 40);
        QCOMPARE(store.messages().size(), 80);
    }

    void clearAllForgetsEverything()
    {
        ConversationMemoryStore store;
        store.updateSummary(u"ceva"_s, withUsers(4));
        QSignalSpy changed(&store, &ConversationMemoryStore::summaryChanged);
        store.clearAll();
        store.waitForWrites();
        QCOMPARE(changed.size(), 1);
        QVERIFY(!QFile::exists(memoryFile()));
        QCOMPARE(store.summary(), QString());
        QVERIFY(store.messages().isEmpty());
        QCOMPARE(store.summarizedUserCount(), 0);
        store.clearAll(); // nothing left to remove
        store.waitForWrites();

        ConversationMemoryStore fresh;
        QCOMPARE(fresh.summary(), QString());
        QVERIFY(fresh.messages().isEmpty());
        QVERIFY(!fresh.shouldRefreshSummary(withUsers(3)));
    }

    void writesLandInTheOrderMade()
    {
        ConversationMemoryStore store;
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
        QCOMPARE(fileObject(memoryFile()).value("summary").toString(), u"ultimul"_s);
        QCOMPARE(fileObject(memoryFile()).value("messages").toArray().first().toObject().value("text").toString(),
            u"mesaj 7"_s);
    }

    // Failed saves are told through saveError (from the writer's thread too) and never change what is
    // on disk: a file that could not be set aside is not overwritten, a symbolic link not followed.
    void failedSavesAreReportedAndLeaveTheFileAlone()
    {
        QDir().mkpath(memoryFile());
        {
            ConversationMemoryStore store;
            QSignalSpy reported(&store, &ConversationMemoryStore::saveErrorChanged);
            store.persist(conversation(2));
            store.waitForWrites();
            QVERIFY2(store.saveError().contains(u"nu a putut fi citit"_s), qPrintable(store.saveError()));
            QCOMPARE(reported.size(), 1);
            QVERIFY(QFileInfo(memoryFile()).isDir());
        }
        QVERIFY(QDir(memoryFile()).removeRecursively());

        const QString target = m_home->path() + u"/alt-program.json"_s;
        const QByteArray foreign = R"({"summary":"al altcuiva","messages":[],"summarizedUserCount":0})";
        writeFile(target, foreign);
        QVERIFY(QFile::link(target, memoryFile()));
        ConversationMemoryStore store;
        QSignalSpy reported(&store, &ConversationMemoryStore::saveErrorChanged);
        store.persist(conversation(2));
        QVERIFY(reported.wait());
        QVERIFY2(store.saveError().contains(u"legătură simbolică"_s), qPrintable(store.saveError()));
        QCOMPARE(readFile(target), foreign);
        QVERIFY(QFileInfo(memoryFile()).isSymLink());

        QVERIFY(QFile::remove(memoryFile()));
        store.persist(conversation(3));
        store.waitForWrites();
        QCOMPARE(store.saveError(), QString());
        QCOMPARE(fileObject(memoryFile()).value("messages").toArray().size(), 3);
    }

    // Eighty messages of 300,000 two-byte characters would make a 48 MB file: texts are cut and the
    // oldest messages give way, so the file written can always be read back.
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

    void unreadableFileIsKeptAsideBeforeAnyWrite_data()
    {
        QTest::addColumn<QByteArray>("contents");
        QTest::newRow("not JSON") << QByteArray("rezumat: nimic");
        QTest::newRow("truncated") << QByteArray("{\"summary\":\"abc\",\"messages\":[{\"id\":");
        QTest::newRow("array") << QByteArray("[]");
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("invalid UTF-8") << QByteArray(
            "{\"summary\":\"\xff\xfe\",\"messages\":[],\"summarizedUserCount\":0}");
        QTest::newRow("summary not text") << QByteArray(R"({"summary":5,"messages":[],"summarizedUserCount":0})");
        QTest::newRow("messages not a list") << QByteArray(R"({"summary":"","messages":{},"summarizedUserCount":0})");
        QTest::newRow("count missing") << QByteArray(R"({"summary":"","messages":[]})");
        QTest::newRow("count negative") << QByteArray(R"({"summary":"","messages":[],"summarizedUserCount":-2})");
        QTest::newRow("count fractional") << QByteArray(R"({"summary":"","messages":[],"summarizedUserCount":1.5})");
        QTest::newRow("count as text") << QByteArray(R"({"summary":"","messages":[],"summarizedUserCount":"3"})");
    }

    void unreadableFileIsKeptAsideBeforeAnyWrite()
    {
        QFETCH(QByteArray, contents);
        QDir().mkpath(memoryDir());
        writeFile(memoryFile(), contents);

        ConversationMemoryStore store;
        QCOMPARE(store.summary(), QString());
        QVERIFY(store.messages().isEmpty());
        QCOMPARE(store.summarizedUserCount(), 0);
        QCOMPARE(recoveredCopies().size(), 1);
        QCOMPARE(store.recoveredCopyPath(), memoryDir() + QLatin1Char('/') + recoveredCopies().first());
        QVERIFY(QFileInfo(store.recoveredCopyPath()).fileName().contains(QDate::currentDate().toString("yyyyMMdd")));

        store.persist(conversation(2));
        store.waitForWrites();
        QCOMPARE(readFile(store.recoveredCopyPath()), contents);
        QCOMPARE(fileObject(memoryFile()).value("messages").toArray().size(), 2);

        // A second unreadable file found in the same second gets a name of its own.
        writeFile(memoryFile(), contents + "!");
        ConversationMemoryStore again;
        QCOMPARE(recoveredCopies().size(), 2);
        QVERIFY(again.recoveredCopyPath() != store.recoveredCopyPath());
        QCOMPARE(readFile(again.recoveredCopyPath()), contents + "!");
    }

    // Messages that cannot be read are skipped (the file is kept aside all the same); a count beyond
    // 32 bits is not damage and survives the next write exactly.
    void unreadableMessagesAreSkippedAndLargeCountsKept()
    {
        const ChatMessage good = ChatMessage::make(Role::user, u"păstrat"_s);
        const QJsonArray messages { good.toJson(), QJsonObject { { "role", "robot" }, { "text", "x" } }, 42,
            QJsonObject { { "role", "assistant" } } };
        const QByteArray contents = QJsonDocument(
            QJsonObject { { "summary", "• s" }, { "messages", messages },
                { "summarizedUserCount", Q_INT64_C(4294967301) },
                { "updatedAt", 0 } }).toJson();
        QDir().mkpath(memoryDir());
        writeFile(memoryFile(), contents);

        ConversationMemoryStore store;
        QCOMPARE(store.summary(), u"• s"_s);
        QCOMPARE(store.messages(), QList<ChatMessage> { good });
        QCOMPARE(store.summarizedUserCount(), Q_INT64_C(4294967301));
        QCOMPARE(readFile(store.recoveredCopyPath()), contents);
        store.persist({});
        store.waitForWrites();
        QCOMPARE(fileObject(memoryFile()).value("summarizedUserCount").toInteger(), Q_INT64_C(4294967301));
    }
};

QTEST_GUILESS_MAIN(ConversationMemoryStoreTest)
#include "ConversationMemoryStoreTest.moc"
