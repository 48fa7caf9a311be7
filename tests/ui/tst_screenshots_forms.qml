import QtQuick
import QtQuick.Controls
import QtTest
import Kelo

// Offscreen pictures of the connections and settings screens (tall, so the whole form shows).
Item {
    id: root
    width: 620
    height: 2900

    FakeStore { id: store }
    FakeActions { id: actions }

    SkillsView {
        id: skills
        visible: false
        anchors.fill: parent
        store: store
        actions: actions
    }
    SettingsView {
        id: settingsView
        visible: false
        anchors.fill: parent
        store: store
        actions: actions
    }

    TestCase {
        name: "FormScreenshots"
        when: windowShown

        function show(item, height) {
            root.height = height
            skills.visible = item === skills
            settingsView.visible = item === settingsView
        }

        function shoot(item, fileName) {
            waitForRendering(item)
            wait(120)
            var image = grabImage(item)
            verify(image.width > 0 && image.height > 0, fileName)
            image.save(screenshotDir + "/" + fileName + ".png")
        }

        function test_1_skillsLists() {
            show(skills, 1400)
            store.settings.mcpServers = []
            shoot(skills, "skills-empty")
            root.height = 1500
            store.settings.mcpServers = [
                { id: "A", name: "GitHub", endpoint: "https://api.githubcopilot.com/mcp/", enabled: true, sourceID: "github", authLabel: "OAuth" },
                { id: "B", name: "Unelte interne", endpoint: "https://tools.example/mcp", enabled: false, sourceID: "", authLabel: "Fără auth" }
            ]
            skills.toolResult = "search_issues — Caută issues după text\nget_pull_request — Citește un pull request"
            shoot(skills, "skills-connected")
        }

        function test_2_skillsSheets() {
            show(skills, 940)
            skills.openGalleryItem(actions.gallery[0])
            var sheet = findChild(skills, "connectSheet")
            tryVerify(function () { return sheet.opened })
            sheet.errorText = "Serverul OAuth nu a răspuns la timp."
            shoot(skills, "skills-oauth-sheet")
            sheet.close()
            tryVerify(function () { return !sheet.visible })

            var manual = findChild(skills, "manualSheet")
            manual.open()
            tryVerify(function () { return manual.opened })
            manual.name = "Unelte interne"
            manual.endpoint = "https://tools.example/mcp"
            shoot(skills, "skills-manual-sheet")
            manual.close()
            tryVerify(function () { return !manual.visible })
        }

        function test_3_settingsPerEngine_data() {
            return [{ tag: "local", engine: "Apple Local" }, { tag: "google", engine: "Google Cloud TTS" },
                    { tag: "azure", engine: "Azure Speech" }, { tag: "eleven", engine: "ElevenLabs" }]
        }

        function test_3_settingsPerEngine(data) {
            show(settingsView, 2900)
            store.settings.zenAPIKey = "sk-test"
            store.zenModels = [{ id: "big-pickle", name: "Big Pickle", isFree: true }, { id: "gpt-5", name: "GPT 5", isFree: false }]
            store.synthesizer.romanianVoices = [{ identifier: "ro", name: "Romanian", quality: "default" }]
            store.synthesizer.bestVoiceDescription = "Romanian (espeak-ng) · Standard"
            store.synthesizer.azureVoices = [{ id: "ro-RO-AlinaNeural", name: "Alina", gender: "Female" }, { id: "ro-RO-EmilNeural", name: "Emil", gender: "Male" }]
            store.settings.voiceEngine = data.engine
            store.synthesizer.lastError = data.tag === "eleven" ? "ElevenLabs: cheia API lipsește." : ""
            store.memory.summary = data.tag === "local" ? "" : "Utilizatorul se numește Ana, lucrează ca arhitect și preferă răspunsuri scurte."
            shoot(settingsView, "settings-" + data.tag)
        }
    }
}
