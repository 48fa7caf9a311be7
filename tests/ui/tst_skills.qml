import QtQuick
import QtQuick.Controls
import QtTest
import Kelo

Item {
    id: root
    width: 560
    height: 1500

    FakeStore { id: store }
    FakeActions { id: actions }

    SkillsView {
        id: skills
        anchors.fill: parent
        store: store
        actions: actions
    }

    TestCase {
        name: "SkillsView"
        when: windowShown

        function serverA() {
            return { id: "AAAA-1", name: "GitHub", endpoint: "https://api.githubcopilot.com/mcp/", enabled: true,
                     sourceID: "github", authLabel: "OAuth" }
        }
        function serverB() {
            return { id: "BBBB-2", name: "Unelte", endpoint: "https://tools.example/mcp", enabled: false,
                     sourceID: "", authLabel: "Fără auth" }
        }

        // Separate clicks by more than the double-click interval: synthetic clicks on different
        // buttons would otherwise pair up into a double click.
        function click(item) {
            wait(Qt.styleHints.mouseDoubleClickInterval + 50)
            mouseClick(item)
        }

        function init() {
            actions.calls = []
            store.settings.mcpServers = []
            skills.toolResult = ""
            skills.checkingServerID = ""
            waitForRendering(skills)
        }

        function test_emptyListInvitesAndTheGalleryMarksOnlyConnectedServices() {
            verify(findChild(skills, "emptyServers").visible)
            store.settings.mcpServers = [serverA(), serverB()]
            verify(!findChild(skills, "emptyServers").visible)
            verify(findChild(findChild(skills, "galleryRow_github"), "connectedBadge").visible)
            verify(!findChild(skills, "galleryRow_linear").connected)
            verify(!findChild(findChild(skills, "galleryRow_linear"), "connectedBadge").visible)
        }

        function test_serverRowsSwitchCheckAndDelete() {
            store.settings.mcpServers = [serverA(), serverB()]
            var on = findChild(skills, "serverRow_0")
            var off = findChild(skills, "serverRow_1")
            compare(findChild(on, "toggleButton").text, "Oprește")
            compare(findChild(off, "toggleButton").text, "Activează")
            compare(findChild(on, "serverDetail").text, "OAuth · Activ")
            compare(findChild(off, "serverDetail").text, "Fără auth · Oprit")

            click(findChild(off, "toggleButton"))
            compare(actions.last(), ["setServerEnabled", "BBBB-2", true])
            click(findChild(on, "toggleButton"))
            compare(actions.last(), ["setServerEnabled", "AAAA-1", false])

            click(findChild(on, "checkButton"))
            compare(actions.last(), ["checkServer", "AAAA-1"])
            compare(skills.checkingServerID, "AAAA-1")
            verify(!findChild(on, "checkButton").enabled)
            // A late answer for another server does not end this check.
            actions.serverChecked("BBBB-2", "altceva")
            compare(skills.checkingServerID, "AAAA-1")
            actions.serverChecked("AAAA-1", "search_issues — Caută issues")
            compare(skills.checkingServerID, "")
            compare(findChild(skills, "toolResult").text, "search_issues — Caută issues")

            click(findChild(off, "deleteButton"))
            compare(actions.last(), ["removeServer", "BBBB-2"])
        }

        function test_connectSheetSavesOnOAuthSuccessOrAManualToken() {
            mouseClick(findChild(skills, "galleryRow_linear"))
            var sheet = findChild(skills, "connectSheet")
            tryVerify(function () { return sheet.opened })
            compare(sheet.title, "Linear")

            sheet.clientID = "  my-client "
            mouseClick(findChild(sheet.contentItem, "oauthButton"))
            compare(actions.last(), ["connectOAuth", "linear", "my-client", ""])
            verify(sheet.isConnecting)
            compare(findChild(sheet.contentItem, "oauthButton").text, "Conectez…")
            actions.oauthStatusChanged("Aștept autorizarea în browser…")
            compare(findChild(sheet.contentItem, "oauthStatus").text, "Aștept autorizarea în browser…")

            actions.oauthFinished("linear", "", "Serverul nu oferă înregistrare dinamică.")
            verify(!sheet.isConnecting)
            verify(sheet.opened)
            compare(findChild(sheet.contentItem, "oauthError").text, "Serverul nu oferă înregistrare dinamică.")
            compare(actions.calls.filter(function (c) { return c[0] === "saveGalleryConnection" }).length, 0)

            click(findChild(sheet.contentItem, "oauthButton"))
            actions.oauthFinished("linear", "tok-123", "")
            compare(actions.last(), ["saveGalleryConnection", "linear", "tok-123", "OAuth"])
            tryVerify(function () { return !sheet.visible })

            // A token pasted by hand instead.
            click(findChild(skills, "galleryRow_github"))
            tryVerify(function () { return sheet.opened })
            var save = findChild(sheet.contentItem, "saveTokenButton")
            verify(!save.enabled)
            sheet.manualToken = " ghp_abc "
            verify(save.enabled)
            mouseClick(save)
            compare(actions.last(), ["saveGalleryConnection", "github", "ghp_abc", "Token"])
            tryVerify(function () { return !sheet.visible })
        }

        function test_manualServerNeedsAValidEndpoint() {
            mouseClick(findChild(skills, "manualAddButton"))
            var sheet = findChild(skills, "manualSheet")
            tryVerify(function () { return sheet.opened })
            compare(sheet.title, "MCP manual")
            var save = findChild(sheet.contentItem, "saveManualButton")
            sheet.name = "Unelte"
            sheet.endpoint = "tools.example/mcp"
            verify(!save.enabled)
            sheet.endpoint = " https://tools.example/mcp "
            verify(save.enabled)
            mouseClick(save)
            compare(actions.last(), ["addManualServer", "Unelte", "https://tools.example/mcp", ""])
            tryVerify(function () { return !sheet.visible })
        }
    }
}
