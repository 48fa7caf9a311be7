import QtQuick
import QtQuick.Controls
import QtTest
import Kelo

Item {
    id: root
    width: 620
    height: 3200

    FakeStore { id: store }
    FakeActions { id: actions }

    SettingsView {
        id: settingsView
        anchors.fill: parent
        store: store
        actions: actions
    }

    TestCase {
        name: "SettingsView"
        when: windowShown

        function init() {
            actions.calls = []
            store.calls = []
            store.settings.voiceEngine = "Apple Local"
            store.settings.voiceIdentifier = ""
            store.synthesizer.romanianVoices = []
            waitForRendering(settingsView)
        }

        function test_choosingAnEngineCardShowsItsFieldsAndKeepsTheOtherKeys() {
            store.settings.googleTTSAPIKey = "g-key"
            verify(findChild(settingsView, "localEngineRows").visible)
            verify(!findChild(settingsView, "azureEngineRows").visible)

            mouseClick(findChild(settingsView, "engineCard_azureSpeech"))
            compare(store.settings.voiceEngine, "Azure Speech")
            verify(findChild(settingsView, "azureEngineRows").visible)
            verify(!findChild(settingsView, "localEngineRows").visible)
            verify(findChild(settingsView, "engineCard_azureSpeech").selected)
            verify(!findChild(settingsView, "engineCard_appleLocal").selected)
            compare(store.settings.googleTTSAPIKey, "g-key")

            wait(Qt.styleHints.mouseDoubleClickInterval + 50)
            mouseClick(findChild(settingsView, "engineCard_elevenLabs"))
            compare(store.settings.voiceEngine, "ElevenLabs")
            verify(findChild(settingsView, "elevenEngineRows").visible)
        }

        function test_doctorSectionRunsTheChecksAndShowsEachLine() {
            mouseClick(findChild(settingsView, "runDoctorButton"))
            compare(actions.last(), ["doctor.start", true])
            verify(!findChild(settingsView, "doctorVerdict").visible)

            actions.doctor.checks = [{ title: "Cheia OpenCode Zen", detail: "salvată.", ok: true, neededForVoice: true },
                                     { title: "Microfonul", detail: "nu găsesc niciun microfon.", ok: false, neededForVoice: true }]
            waitForRendering(settingsView)
            var verdict = findChild(settingsView, "doctorVerdict")
            verify(verdict.visible)
            compare(verdict.text, "O tură vocală nu poate avea loc până nu rezolvi liniile marcate.")
            actions.doctor.readyForVoice = true
            compare(verdict.text, "Kelo are tot ce îi trebuie pentru o tură vocală.")
            actions.doctor.checks = []
        }

        function test_localVoicePickerFirstEntryStoresTheEmptyIdentifier() {
            store.synthesizer.romanianVoices = [{ identifier: "ro+adam", name: "Romanian+Adam", quality: "enhanced" }]
            store.settings.voiceIdentifier = "ro+adam"
            var picker = findChild(settingsView, "localVoicePicker")
            compare(picker.currentIndex, 1)
            compare(picker.currentText, "Romanian+Adam · Îmbunătățită")
            picker.activated(0)
            compare(store.settings.voiceIdentifier, "")
            compare(picker.currentText, "Automat · cea mai bună")
        }

        function test_zenKeyTestAndTheModelPicker() {
            var button = findChild(settingsView, "testZenButton")
            mouseClick(button)
            compare(actions.last(), ["testZenConnection"])
            verify(settingsView.isTestingZen)
            verify(!button.enabled)
            actions.zenConnectionTested("Conectat · 12 modele")
            verify(!settingsView.isTestingZen)
            compare(findChild(settingsView, "zenTestStatus").text, "Conectat · 12 modele")

            store.zenModels = [{ id: "gpt-5", name: "GPT 5", isFree: false }, { id: "big-pickle", name: "Big Pickle", isFree: true }]
            var picker = findChild(settingsView, "modelPicker")
            compare(picker.count, 2)
            compare(picker.currentText, "Big Pickle  ·  FREE")
            picker.activated(0)
            compare(store.settings.zenModelID, "gpt-5")
        }

        function test_switchesAndFieldsWriteTheirSettingAtOnce() {
            var bg = findChild(findChild(settingsView, "backgroundSwitch"), "switch")
            verify(!store.settings.backgroundConversationEnabled)
            mouseClick(bg)
            verify(store.settings.backgroundConversationEnabled)

            var keyField = findChild(findChild(settingsView, "zenKeyField"), "field")
            keyField.forceActiveFocus()
            keyClick(Qt.Key_K)
            compare(store.settings.zenAPIKey, "k")
            compare(keyField.echoMode, TextInput.Password)
        }

        function test_buttonsReachTheStoreAndTheActionsAndSummariesFollowTheStore() {
            mouseClick(findChild(settingsView, "reloadModelsButton"))
            mouseClick(findChild(settingsView, "reloadSkillsButton"))
            compare(store.calls, ["reloadZenModels", "reloadMCPBindings"])
            mouseClick(findChild(settingsView, "clearMemoryButton"))
            compare(actions.last(), ["clearMemory"])
            mouseClick(findChild(settingsView, "localPreviewButton"))
            compare(actions.last(), ["previewVoice", "Apple Local"])

            store.memory.summary = "Îi place jazzul."
            compare(findChild(settingsView, "memorySummary").text, "Îi place jazzul.")
            store.settings.mcpServers = [{ id: "1" }, { id: "2" }]
            compare(findChild(settingsView, "mcpCount").text, "2")
        }
    }
}
