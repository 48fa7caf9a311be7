import QtQuick
import QtQuick.Controls
import QtTest
import Kelo
import Kelo.Core
import Kelo.Testing

Item {
    id: root
    width: 620
    height: 3200

    readonly property ChatStore store: Real.store
    readonly property CompanionActions actions: Real.actions

    SettingsView {
        id: settingsView
        anchors.fill: parent
        store: root.store
        actions: root.actions
    }

    FakeStore { id: fakeStore }
    FakeActions { id: fakeActions }

    TestCase {
        name: "SettingsView"
        when: windowShown

        function init() {
            store.settings.voiceEngine = "Apple Local"
            waitForRendering(settingsView)
        }

        // The chat view's tests still use these doubles; whatever they declare must exist on what
        // they stand for, or a renamed property would pass there and break in the app.
        function test_doublesDeclareOnlyWhatTheRealObjectsHave_data() {
            return [{ tag: "store", fake: fakeStore, real: store, own: ["calls", "record", "message", "setMessages"] },
                    { tag: "actions", fake: fakeActions, real: actions, own: ["calls"] }]
        }

        function test_doublesDeclareOnlyWhatTheRealObjectsHave(data) {
            var checked = 0
            for (var name in data.fake) {
                // Change signals of declared properties are the fake's own.
                if (data.own.indexOf(name) !== -1 || (name.endsWith("Changed") && name.slice(0, -7) in data.fake))
                    continue
                verify(name in data.real, data.tag + " has no " + name)
                compare(typeof data.fake[name] === "function", typeof data.real[name] === "function", name)
                ++checked
            }
            verify(checked >= 2, "the double's members were not enumerated")
        }

        // A click on a card chooses its engine, shows only that engine's fields and outlines only that
        // card in the accent colour (read from the drawn picture); other engines' keys stay.
        function test_engineCardsChooseAndShowTheirEngine_data() {
            return [{ tag: "azureSpeech", engine: "Azure Speech", rows: "azureEngineRows" },
                    { tag: "googleCloud", engine: "Google Cloud TTS", rows: "googleEngineRows" },
                    { tag: "elevenLabs", engine: "ElevenLabs", rows: "elevenEngineRows" },
                    { tag: "appleLocal", engine: "Apple Local", rows: "localEngineRows" }]
        }

        function test_engineCardsChooseAndShowTheirEngine(data) {
            store.settings.voiceEngine = "Azure Speech"
            store.settings.googleTTSAPIKey = "g-key"
            mouseClick(findChild(settingsView, "engineCard_" + data.tag))
            compare(store.settings.voiceEngine, data.engine)
            compare(store.settings.googleTTSAPIKey, "g-key")
            var rows = ["localEngineRows", "googleEngineRows", "azureEngineRows", "elevenEngineRows"]
            for (var r = 0; r < rows.length; ++r)
                compare(findChild(settingsView, rows[r]).visible, rows[r] === data.rows, rows[r])
            waitForRendering(settingsView)
            var image = grabImage(settingsView)
            var cards = ViewPresets.voiceEngineCards
            for (var i = 0; i < cards.length; ++i) {
                var card = findChild(settingsView, "engineCard_" + cards[i].key)
                var point = card.mapToItem(settingsView, card.width / 2, 0.5)
                var outlined = String(image.pixel(point.x, point.y)) === String(Theme.accent)
                compare(outlined, cards[i].key === data.tag, cards[i].key)
            }
        }

        // Controls write their setting at once; the server count and the memory follow the core.
        function test_controlsAndCountsFollowTheCore() {
            var bg = findChild(findChild(settingsView, "backgroundSwitch"), "switch")
            var before = store.settings.backgroundConversationEnabled
            mouseClick(bg)
            compare(store.settings.backgroundConversationEnabled, !before)

            var keyField = findChild(findChild(settingsView, "zenKeyField"), "field")
            keyField.forceActiveFocus()
            keyClick(Qt.Key_K)
            compare(store.settings.zenAPIKey.slice(-1), "k")
            compare(keyField.echoMode, TextInput.Password)

            // The automatic voice (empty identifier) comes first and stands for an unknown one.
            var voice = findChild(settingsView, "localVoicePicker")
            compare(voice.count, store.synthesizer.romanianVoices.length + 1)
            store.settings.voiceIdentifier = "no-such-voice"
            compare(voice.currentText, ViewPresets.automaticVoiceLabel)
            voice.activated(0)
            compare(store.settings.voiceIdentifier, "")

            var servers = store.settings.mcpServers.length
            actions.addManualServer("Unelte", "https://tools.example/mcp", "")
            compare(findChild(settingsView, "mcpCount").text, String(servers + 1))
            mouseClick(findChild(settingsView, "clearMemoryButton"))
            compare(findChild(settingsView, "memorySummary").text, ViewPresets.memoryPlaceholder)
        }

        // The key test against a closed port ends as a failure; the checks end with a verdict.
        function test_keyTestAndChecksEndWithAVerdict() {
            var button = findChild(settingsView, "testZenButton")
            mouseClick(button)
            verify(!button.enabled)
            mouseClick(findChild(settingsView, "runDoctorButton"))
            var doctor = actions.doctor
            tryVerify(function () { return button.enabled }, 30000)
            var status = findChild(settingsView, "zenTestStatus")
            verify(status.text.indexOf("Conexiune eșuată") === 0, status.text)
            compare(status.color, Theme.danger)
            compare(findChild(settingsView, "modelPicker").currentIndex, 0, "the selected model is offered without a list")
            tryVerify(function () { return !doctor.running && doctor.checks.length > 0 }, 60000)
            var verdict = findChild(settingsView, "doctorVerdict")
            verify(verdict.visible)
            compare(verdict.color, doctor.readyForVoice ? Theme.accent : Theme.danger)
        }
    }
}
