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
    // Reconnecting a service replaces its entry in the same slot, switched back on, with a new id.
    void connectingAGalleryItemAppendsOnceThenReplacesInPlace()
    {
        const MCPGalleryItem &linear = *MCPGalleryItem::find(QStringLiteral("linear"));
        QList<MCPServerConfig> servers { server(QStringLiteral("a")), server(QStringLiteral("b")) };
        servers = MCPServerListEditor::withGalleryConnection(
            servers, linear, QStringLiteral("first"), QStringLiteral("OAuth"));
        QCOMPARE(servers.size(), 3);
        QCOMPARE(servers[2].name, linear.name);
        QCOMPARE(servers[2].endpoint, linear.endpoint);
        QVERIFY(!servers[2].id.isNull());
        servers.append(server(QStringLiteral("c")));
        servers = MCPServerListEditor::withEnabled(servers, servers[2].idString(), false);
        const QUuid firstID = servers[2].id;

        servers = MCPServerListEditor::withGalleryConnection(
            servers, linear, QStringLiteral("second"), QStringLiteral("Token"));

        QCOMPARE(servers.size(), 4);
        QCOMPARE(servers[2].sourceID, std::optional<QString>(QStringLiteral("linear")));
        QCOMPARE(servers[2].bearerToken, QStringLiteral("second"));
        QCOMPARE(servers[2].authLabel, std::optional<QString>(QStringLiteral("Token")));
        QVERIFY(servers[2].enabled);
        QVERIFY(servers[2].id != firstID);
        QCOMPARE(servers[3].name, QStringLiteral("c"));
    }

    void manualServersAreTrimmedAndLabelledByWhetherTheyCarryAToken_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("token");
        QTest::addColumn<QString>("storedName");
        QTest::addColumn<QString>("label");
        QTest::addColumn<QString>("storedToken");
        const QString mine = QStringLiteral("Mine"), noAuth = QStringLiteral("Fără auth");
        QTest::newRow("none") << mine << QString() << mine << noAuth << QString();
        QTest::newRow("only blanks") << mine << QStringLiteral("  \n") << mine << noAuth << QString();
        QTest::newRow("token") << mine << QStringLiteral(" abc ") << mine << QStringLiteral("Token")
                               << QStringLiteral("abc");
        QTest::newRow("no name: the host")
            << QStringLiteral("  ") << QString() << QStringLiteral("mcp.example") << noAuth << QString();
    }

    void manualServersAreTrimmedAndLabelledByWhetherTheyCarryAToken()
    {
        QFETCH(QString, name);
        QFETCH(QString, token);
        QFETCH(QString, storedName);
        QFETCH(QString, label);
        QFETCH(QString, storedToken);

        const MCPServerConfig manual
            = MCPServerListEditor::manualServer(name, QStringLiteral(" https://mcp.example:8443/x "), token);

        QCOMPARE(manual.name, storedName);
        QCOMPARE(manual.authLabel, std::optional<QString>(label));
        QCOMPARE(manual.bearerToken, storedToken);
        QCOMPARE(manual.sourceID, std::nullopt);
        QCOMPARE(manual.endpoint, QStringLiteral("https://mcp.example:8443/x"));
        QVERIFY(manual.enabled);
    }

    void editsTouchOnlyTheNamedServer()
    {
        const QList<MCPServerConfig> servers { server(QStringLiteral("a")), server(QStringLiteral("b")) };
        const QString idOfB = servers[1].idString().toLower(); // ids from QML may differ in case
        const auto switched = MCPServerListEditor::withEnabled(servers, idOfB, false);
        QVERIFY(switched[0].enabled && !switched[1].enabled);
        QCOMPARE(MCPServerListEditor::without(servers, idOfB), servers.mid(0, 1));
        QCOMPARE(MCPServerListEditor::without(servers, QUuid::createUuid().toString()), servers);
        QCOMPARE(MCPServerListEditor::withEnabled(servers, QStringLiteral("nope"), false), servers);
        QVERIFY(MCPServerListEditor::find(servers, idOfB) == &servers[1]);
        QVERIFY(MCPServerListEditor::find(servers, QStringLiteral("nope")) == nullptr);
    }
};

QTEST_GUILESS_MAIN(MCPServerListEditorTest)
#include "MCPServerListEditorTest.moc"
