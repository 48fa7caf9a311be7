#include "ui/MCPServerListEditor.h"

#include <QTest>

namespace {

MCPServerConfig server(const QString &name, std::optional<QString> sourceID = std::nullopt, bool enabled = true)
{
    return MCPServerConfig { QUuid::createUuid(), name,
        QStringLiteral("https://") + name + QStringLiteral(".example/mcp"), QString(), enabled, sourceID,
        QStringLiteral("Token") };
}

} // namespace

class MCPServerListEditorTest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void connectingAGalleryItemAppendsAnEnabledServerFromIt()
    {
        const MCPGalleryItem &github = *MCPGalleryItem::find(QStringLiteral("github"));
        const QList<MCPServerConfig> before { server(QStringLiteral("custom")) };

        const auto after = MCPServerListEditor::withGalleryConnection(
            before, github, QStringLiteral("tok"), QStringLiteral("OAuth"));

        QCOMPARE(after.size(), 2);
        QCOMPARE(after.first(), before.first());
        const MCPServerConfig &added = after.last();
        QCOMPARE(added.name, github.name);
        QCOMPARE(added.endpoint, github.endpoint);
        QCOMPARE(added.bearerToken, QStringLiteral("tok"));
        QVERIFY(added.enabled);
        QCOMPARE(added.sourceID, std::optional<QString>(QStringLiteral("github")));
        QCOMPARE(added.authLabel, std::optional<QString>(QStringLiteral("OAuth")));
        QVERIFY(!added.id.isNull());
    }

    void connectingTheSameServiceTwiceReplacesItInPlace()
    {
        const MCPGalleryItem &linear = *MCPGalleryItem::find(QStringLiteral("linear"));
        QList<MCPServerConfig> servers { server(QStringLiteral("a")), server(QStringLiteral("b")) };
        servers = MCPServerListEditor::withGalleryConnection(
            servers, linear, QStringLiteral("first"), QStringLiteral("OAuth"));
        servers.append(server(QStringLiteral("c")));
        // The first connection was switched off; reconnecting must bring it back in the same slot.
        servers = MCPServerListEditor::withEnabled(servers, servers[2].idString(), false);
        const QUuid firstID = servers[2].id;

        servers = MCPServerListEditor::withGalleryConnection(
            servers, linear, QStringLiteral("second"), QStringLiteral("Token"));

        QCOMPARE(servers.size(), 4);
        const auto fromLinear = std::count_if(servers.cbegin(), servers.cend(),
            [](const MCPServerConfig &s) { return s.sourceID == QStringLiteral("linear"); });
        QCOMPARE(fromLinear, 1);
        QCOMPARE(servers[2].sourceID, std::optional<QString>(QStringLiteral("linear")));
        QCOMPARE(servers[2].bearerToken, QStringLiteral("second"));
        QCOMPARE(servers[2].authLabel, std::optional<QString>(QStringLiteral("Token")));
        QVERIFY(servers[2].enabled);
        QVERIFY(servers[2].id != firstID);
        QCOMPARE(servers[3].name, QStringLiteral("c"));
    }

    void manualServersAreLabelledByWhetherTheyCarryAToken_data()
    {
        QTest::addColumn<QString>("token");
        QTest::addColumn<QString>("label");
        QTest::addColumn<QString>("storedToken");
        QTest::newRow("none") << QString() << QStringLiteral("Fără auth") << QString();
        QTest::newRow("only blanks") << QStringLiteral("  \n") << QStringLiteral("Fără auth") << QString();
        QTest::newRow("token") << QStringLiteral(" abc ") << QStringLiteral("Token") << QStringLiteral("abc");
    }

    void manualServersAreLabelledByWhetherTheyCarryAToken()
    {
        QFETCH(QString, token);
        QFETCH(QString, label);
        QFETCH(QString, storedToken);

        const MCPServerConfig manual = MCPServerListEditor::manualServer(
            QStringLiteral("Mine"), QStringLiteral(" https://mcp.example/x "), token);

        QCOMPARE(manual.authLabel, std::optional<QString>(label));
        QCOMPARE(manual.bearerToken, storedToken);
        QCOMPARE(manual.sourceID, std::nullopt);
        QCOMPARE(manual.endpoint, QStringLiteral("https://mcp.example/x"));
        QCOMPARE(manual.name, QStringLiteral("Mine"));
        QVERIFY(manual.enabled);
    }

    void aManualServerWithoutANameIsNamedAfterItsHost()
    {
        const auto manual = MCPServerListEditor::manualServer(
            QStringLiteral("  "), QStringLiteral("https://tools.example.org:8443/mcp"), {});
        QCOMPARE(manual.name, QStringLiteral("tools.example.org"));
    }

    void switchingAndRemovingTouchOnlyTheNamedServer()
    {
        const QList<MCPServerConfig> servers { server(QStringLiteral("a")), server(QStringLiteral("b")) };
        const QString idOfB = servers[1].idString().toLower(); // ids from QML may differ in case

        const auto switched = MCPServerListEditor::withEnabled(servers, idOfB, false);
        QVERIFY(switched[0].enabled);
        QVERIFY(!switched[1].enabled);
        QCOMPARE(switched.size(), 2);

        const auto removed = MCPServerListEditor::without(switched, idOfB);
        QCOMPARE(removed.size(), 1);
        QCOMPARE(removed[0].name, QStringLiteral("a"));

        QCOMPARE(MCPServerListEditor::without(servers, QUuid::createUuid().toString()), servers);
        QVERIFY(MCPServerListEditor::find(servers, idOfB) == &servers[1]);
        QVERIFY(MCPServerListEditor::find(servers, QStringLiteral("nope")) == nullptr);
    }
};

QTEST_GUILESS_MAIN(MCPServerListEditorTest)
#include "MCPServerListEditorTest.moc"
