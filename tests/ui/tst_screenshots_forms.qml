import QtQuick
import QtQuick.Controls
import QtTest
import Kelo
import Kelo.Core
import Kelo.Testing

// Offscreen pictures of the connections and settings screens (tall, so the whole form shows), saved
// for review next to the build, each checked where it must differ.
Item {
    id: root
    width: 620
    height: 2900

    SkillsView {
        id: skills
        visible: false
        anchors.fill: parent
        store: Real.store
        actions: Real.actions
    }
    SettingsView {
        id: settingsView
        visible: false
        anchors.fill: parent
        store: Real.store
        actions: Real.actions
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
            image.save(screenshotDir + "/" + fileName + ".png")
            return image
        }

        // The colour of a card's top border in the middle, where a selected card draws the accent.
        function borderColour(image, card) {
            var point = card.mapToItem(settingsView, card.width / 2, 0.5)
            return image.pixel(point.x, point.y)
        }

        function test_1_skillsListsAndSheets() {
            show(skills, 1400)
            var empty = shoot(skills, "skills-empty")
            root.height = 1500
            Real.actions.saveGalleryConnection("github", "ghp_abc", "OAuth")
            Real.actions.addManualServer("Unelte interne", "https://tools.example/mcp", "")
            skills.toolResult = "search_issues — Caută issues după text\nget_pull_request — Citește un pull request"
            root.height = 1400
            var connected = shoot(skills, "skills-connected")
            verify(!empty.equals(connected), "the connected servers changed nothing on screen")
            verify(findChild(findChild(skills, "galleryRow_github"), "connectedBadge").visible)
            verify(!findChild(findChild(skills, "galleryRow_linear"), "connectedBadge").visible)

            skills.openGalleryItem(Real.actions.gallery[0])
            var sheet = findChild(skills, "connectSheet")
            tryVerify(function () { return sheet.opened })
            sheet.errorText = "Serverul OAuth nu a răspuns la timp."
            verify(!connected.equals(shoot(skills, "skills-oauth-sheet")), "the sheet did not show")
            sheet.close()
            tryVerify(function () { return !sheet.visible })
        }

        function test_2_settingsPerEngine_data() {
            return [{ tag: "local", engine: "Apple Local", key: "appleLocal" },
                    { tag: "google", engine: "Google Cloud TTS", key: "googleCloud" },
                    { tag: "azure", engine: "Azure Speech", key: "azureSpeech" },
                    { tag: "eleven", engine: "ElevenLabs", key: "elevenLabs" }]
        }

        function test_2_settingsPerEngine(data) {
            show(settingsView, 2900)
            Real.store.settings.voiceEngine = data.engine
            var image = shoot(settingsView, "settings-" + data.tag)
            var cards = ViewPresets.voiceEngineCards
            for (var i = 0; i < cards.length; ++i) {
                var colour = borderColour(image, findChild(settingsView, "engineCard_" + cards[i].key))
                if (cards[i].key === data.key)
                    compare(String(colour), String(Theme.accent), "the chosen card is outlined")
                else
                    verify(String(colour) !== String(Theme.accent), cards[i].key + " is outlined too")
            }
        }
    }
}
