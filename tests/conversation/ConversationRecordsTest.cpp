#include "conversation/ChatMessage.h"
#include "conversation/ZenModel.h"

#include <QJsonDocument>
#include <QSet>
#include <QTest>

using namespace Qt::Literals::StringLiterals;

class ConversationRecordsTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void chatMessageSurvivesARoundTripWithItsDateFormat()
    {
        ChatMessage original = ChatMessage::make(ChatMessage::Role::assistant, u"Bună, Ana! 😀\n"_s);
        original.createdAt = QDateTime(QDate(2026, 3, 14), QTime(9, 26, 53, 589), Qt::UTC);
        original.fromApp = true;

        const QByteArray wire = QJsonDocument(original.toJson()).toJson();
        const auto decoded = ChatMessage::fromJson(QJsonDocument::fromJson(wire).object());
        QVERIFY(decoded);
        QCOMPARE(*decoded, original);
        QCOMPARE(decoded->createdAt.toMSecsSinceEpoch(), original.createdAt.toMSecsSinceEpoch());

        // Dates count seconds from the start of 2001, either side of it.
        const QJsonObject object = ChatMessage { QUuid::createUuid(), ChatMessage::Role::user, u"x"_s,
            QDateTime(QDate(2001, 1, 2), QTime(0, 0, 1, 500), Qt::UTC) }
                                       .toJson();
        QCOMPARE(object.value("createdAt").toDouble(), 86401.5);
        QCOMPARE(object.value("role").toString(), u"user"_s);

        const auto fromSwiftStyle
            = ChatMessage::fromJson(QJsonObject { { "id", "E621E1F8-C36C-495A-93FC-0C247A3E6E5F" },
                { "role", "system" }, { "text", "" }, { "createdAt", -31.25 } });
        QVERIFY(fromSwiftStyle);
        QCOMPARE(fromSwiftStyle->createdAt, QDateTime(QDate(2000, 12, 31), QTime(23, 59, 28, 750), Qt::UTC));
        QCOMPARE(fromSwiftStyle->idString(), u"E621E1F8-C36C-495A-93FC-0C247A3E6E5F"_s);
    }

    void incompleteMessagesGetDefaultsOrAreRefused()
    {
        const QDateTime before = QDateTime::currentDateTimeUtc();
        const auto bare = ChatMessage::fromJson(QJsonObject { { "role", "user" }, { "text", "salut" } });
        QVERIFY(bare);
        QVERIFY(!bare->id.isNull());
        QVERIFY(bare->createdAt >= before);
        QVERIFY(!bare->fromApp); // files written before the app marked its own texts
        // A date no clock can hold counts as missing rather than overflowing.
        for (double impossible : { -1e300, 1e19, 1e13 }) {
            const auto far = ChatMessage::fromJson(
                QJsonObject { { "role", "user" }, { "text", "salut" }, { "createdAt", impossible } });
            QVERIFY(far);
            QVERIFY(far->createdAt >= before);
        }

        for (const QJsonValue &bad : { QJsonValue(QJsonObject { { "role", "tool" }, { "text", "x" } }),
                 QJsonValue(QJsonObject { { "role", "user" } }),
                 QJsonValue(QJsonObject { { "role", "user" }, { "text", 5 } }),
                 QJsonValue(QJsonObject { { "text", "x" } }), QJsonValue("user: x"), QJsonValue() })
            QVERIFY(!ChatMessage::fromJson(bad));
    }

    void equalModelsAreEqualAndHashAlike()
    {
        const ZenModel a { u"m1"_s, u"Model"_s, true };
        const ZenModel b { u"m1"_s, u"Model"_s, true };
        QCOMPARE(a, b);
        QCOMPARE(qHash(a), qHash(b));
        QCOMPARE(qHash(a, 7), qHash(b, 7));
        QVERIFY(a != (ZenModel { u"m1"_s, u"Model"_s, false }));
        QVERIFY(a != (ZenModel { u"m1"_s, u"Altul"_s, true }));
        QCOMPARE((QSet<ZenModel> { a, b, ZenModel::bigPickle() }).size(), 2);

        QCOMPARE(ZenModel::fromJson(a.toJson()), std::optional<ZenModel>(a));
        QVERIFY(!ZenModel::fromJson(QJsonObject { { "id", "m1" }, { "name", "Model" }, { "isFree", "true" } }));
    }
};

QTEST_GUILESS_MAIN(ConversationRecordsTest)
#include "ConversationRecordsTest.moc"
