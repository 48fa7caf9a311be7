#include "conversation/ChatMessage.h"
#include "conversation/ZenModel.h"

#include <QJsonDocument>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

class ConversationRecordsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    // Dates count seconds from 2001, either side, to the millisecond; what is missing gets a default.
    void recordsSurviveARoundTripWithTheirDateFormat()
    {
        ChatMessage original = ChatMessage::make(ChatMessage::Role::assistant, u"Bună, Ana! 😀\n"_s);
        original.createdAt = QDateTime(QDate(2001, 1, 2), QTime(0, 0, 1, 589), Qt::UTC);
        original.fromApp = true;
        const QJsonObject wire = QJsonDocument::fromJson(QJsonDocument(original.toJson()).toJson()).object();
        QCOMPARE(wire.value("createdAt").toDouble(), 86401.589);
        QCOMPARE(ChatMessage::fromJson(wire), std::optional<ChatMessage>(original));

        const auto written = ChatMessage::fromJson(QJsonObject { { "id", "E621E1F8-C36C-495A-93FC-0C247A3E6E5F" },
            { "role", "system" }, { "text", "" }, { "createdAt", -31.25 } });
        QVERIFY(written);
        QCOMPARE(written->createdAt, QDateTime(QDate(2000, 12, 31), QTime(23, 59, 28, 750), Qt::UTC));
        QCOMPARE(written->idString(), u"E621E1F8-C36C-495A-93FC-0C247A3E6E5F"_s);

        const ZenModel model { u"m1"_s, u"Model"_s, true };
        QCOMPARE(ZenModel::fromJson(model.toJson()), std::optional<ZenModel>(model));
        QVERIFY(!ZenModel::fromJson(QJsonObject { { "id", "m1" }, { "name", "Model" }, { "isFree", "true" } }));

        const QDateTime before = QDateTime::currentDateTimeUtc();
        // A date no clock can hold counts as missing rather than overflowing.
        for (const QJsonValue &date : { QJsonValue(), QJsonValue(-1e300), QJsonValue(1e19), QJsonValue(1e13) }) {
            QJsonObject object { { "role", "user" }, { "text", "salut" } };
            if (!date.isNull())
                object.insert("createdAt", date);
            const auto bare = ChatMessage::fromJson(object);
            QVERIFY(bare && !bare->id.isNull() && bare->createdAt >= before);
            QVERIFY(!bare->fromApp); // files written before the app marked its own texts
        }
        QVERIFY(!ChatMessage::fromJson(QJsonValue()) && !ChatMessage::fromJson(QJsonValue("user: x")));
    }
};

QTEST_GUILESS_MAIN(ConversationRecordsTest)
#include "ConversationRecordsTest.moc"
