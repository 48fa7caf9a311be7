import QtQuick
import QtQuick.Controls
import QtTest
import Kelo
import Kelo.Core
import Kelo.Testing

Item {
    id: root
    width: 560
    height: 1500

    readonly property ChatStore store: Real.store
    readonly property CompanionActions actions: Real.actions

    SkillsView {
        id: skills
        anchors.fill: parent
        store: root.store
        actions: root.actions
    }

    TestCase {
        name: "SkillsView"
        when: windowShown

        // Apart by more than the double-click interval, or clicks on different buttons pair up.
        function click(item) {
            wait(Qt.styleHints.mouseDoubleClickInterval + 50)
            mouseClick(item)
        }

        function servers() { return store.settings.mcpServers }

        function init() {
            while (servers().length > 0)
                actions.removeServer(servers()[0].id)
            waitForRendering(skills)
        }

        function test_serverRowsSwitchCheckAndDelete() {
            actions.addManualServer("Mort", "http://127.0.0.1:1/mcp", "")
            // The second through the sheet, which saves only a valid address, trimmed.
            mouseClick(findChild(skills, "manualAddButton"))
            var sheet = findChild(skills, "manualSheet")
            tryVerify(function () { return sheet.opened })
            var save = findChild(sheet.contentItem, "saveManualButton")
            sheet.name = "Unelte"
            sheet.token = "t"
            sheet.endpoint = "tools.example/mcp"
            verify(!save.enabled && sheet.endpointError.length > 0)
            sheet.endpoint = " https://tools.example/mcp "
            click(save)
            tryVerify(function () { return !sheet.visible })
            compare(servers()[1].endpoint, "https://tools.example/mcp")
            var first = findChild(skills, "serverRow_0")
            compare(findChild(first, "serverDetail").text, "Fără auth · Activ")
            compare(findChild(findChild(skills, "serverRow_1"), "serverDetail").text, "Token · Activ")

            click(findChild(first, "toggleButton"))
            verify(!servers()[0].enabled)
            compare(findChild(findChild(skills, "serverRow_0"), "toggleButton").text, "Activează")

            // Nothing listens on port 1: the check ends with the reason, not a hang.
            click(findChild(findChild(skills, "serverRow_0"), "checkButton"))
            compare(skills.checkingServerID, servers()[0].id)
            tryVerify(function () { return skills.checkingServerID === "" }, 30000)
            verify(findChild(skills, "toolResult").text.trim().length > 0)

            click(findChild(findChild(skills, "serverRow_1"), "deleteButton"))
            compare(servers().length, 1)
            compare(servers()[0].name, "Mort")
        }

        function test_connectSheetShowsAFailureAndSavesAToken() {
            mouseClick(findChild(skills, "galleryRow_linear"))
            var sheet = findChild(skills, "connectSheet")
            tryVerify(function () { return sheet.opened })
            compare(sheet.title, "Linear")

            // The answer of a flow started here (a real one would open the browser).
            sheet.isConnecting = true
            actions.oauthStatusChanged("Aștept autorizarea în browser…")
            compare(findChild(sheet.contentItem, "oauthStatus").text, "Aștept autorizarea în browser…")
            actions.oauthFinished("github", "", "altceva")
            verify(sheet.isConnecting, "an answer for another service is not this sheet's")
            actions.oauthFinished("linear", "", "Serverul nu oferă înregistrare dinamică.")
            verify(!sheet.isConnecting)
            compare(findChild(sheet.contentItem, "oauthError").text, "Serverul nu oferă înregistrare dinamică.")
            compare(servers().length, 0)

            var save = findChild(sheet.contentItem, "saveTokenButton")
            verify(!save.enabled)
            sheet.manualToken = " lin_abc "
            click(save)
            tryVerify(function () { return !sheet.visible })
            compare(servers().length, 1)
            compare(servers()[0].sourceID, "linear")
            compare(servers()[0].authLabel, "Token")
            verify(findChild(findChild(skills, "galleryRow_linear"), "connectedBadge").visible)
            verify(!findChild(findChild(skills, "galleryRow_github"), "connectedBadge").visible)
        }
    }
}
