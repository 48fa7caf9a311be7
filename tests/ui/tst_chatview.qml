import QtQuick
import QtQuick.Controls
import QtTest
import Kelo
import Kelo.Core
import Kelo.Testing
import "qrc:/qt/qml/Kelo/ViewLogic.js" as Logic

Item {
    id: root
    width: 520
    height: 880

    FakeStore { id: store }
    FakeActions { id: actions }

    RootView {
        id: rootView
        anchors.fill: parent
        store: store
        actions: actions
    }

    TestCase {
        id: test
        name: "ChatView"
        when: windowShown

        readonly property var chat: rootView.chatView

        function init() {
            store.calls = []
            actions.calls = []
            store.setMessages([])
            store.draft = ""
            store.isThinking = false
            store.activity = ChatStore.Idle
            store.hasZenKey = true
            chat.showConversation = false
            chat.takeKeyboard()
            waitForRendering(rootView)
        }

        // One press, one turn: moving while held, even far outside the orb, neither begins again nor cancels.
        function test_holdingTheOrbBeginsOnceAndEndsOnce() {
            var area = findChild(rootView, "orbArea")
            mousePress(area, area.width / 2, area.height / 2)
            mouseMove(area, area.width / 2 + 40, area.height / 2 - 30)
            mouseMove(area, area.width * 2, -area.height)
            compare(store.calls, ["begin"])
            verify(chat.orbPressed)
            mouseRelease(area, area.width * 2, -area.height)
            compare(store.calls, ["begin", "end"])
            verify(!chat.orbPressed)
        }

        // Space held outside the composer talks once (pressing again while held changes nothing); inside
        // it types. Enter and the button send the draft, never a blank one nor a second while a turn runs.
        function test_spaceTalksAndEnterSends() {
            keyPress(Qt.Key_Space)
            keyPress(Qt.Key_Space, Qt.NoModifier, -1)
            keyPress(Qt.Key_Space, Qt.NoModifier, -1)
            keyRelease(Qt.Key_Space)
            compare(store.calls, ["begin", "end"])

            var send = findChild(rootView, "sendButton")
            findChild(rootView, "composer").forceActiveFocus()
            keyClick(Qt.Key_Space)
            compare(store.draft, " ")
            keyClick(Qt.Key_Return)
            compare(store.calls, ["begin", "end"], "a space in the composer, a blank draft not sent")
            verify(!send.enabled)
            store.calls = []

            keyClick(Qt.Key_S)
            keyClick(Qt.Key_A)
            keyClick(Qt.Key_Return)
            compare(store.calls, ["send: sa"])

            store.isThinking = true
            verify(!send.enabled)
            keyClick(Qt.Key_Enter)
            compare(store.calls, ["send: sa"], "no second turn while one runs")

            store.isThinking = false
            store.draft = "Ce vreme e?"
            mouseClick(send)
            compare(store.calls, ["send: sa", "send:Ce vreme e?"])
        }

        // The card shows the model's latest answer, growing in place while it streams; the app's own
        // texts bring the hint back.
        function test_answerCardFollowsTheConversation() {
            store.setMessages([store.message("assistant", "Salut. Sunt Kelo.", true)])
            verify(findChild(rootView, "hintCard").visible)
            verify(!findChild(rootView, "answerCard").visible)

            store.conversation.append(store.message("user", "Salut"))
            store.conversation.append(store.message("assistant", "Bună!"))
            verify(!findChild(rootView, "hintCard").visible)
            compare(findChild(rootView, "answerText").text, "Bună!")
            store.conversation.setProperty(2, "text", "Bună! Ce facem azi?")
            compare(findChild(rootView, "answerText").text, "Bună! Ce facem azi?")

            store.conversation.append(store.message("assistant", "Conversație nouă.", true))
            verify(findChild(rootView, "hintCard").visible)

            store.hasZenKey = false
            compare(findChild(rootView, "hintText").text, "Adaugă cheia OpenCode Zen în Setări. Big Pickle este selectat implicit.")
            compare(findChild(rootView, "modelLabel").text, "Configurează Zen")
            store.hasZenKey = true
            compare(findChild(rootView, "modelLabel").text, "Big Pickle")
        }

        function test_orbAndPillFollowTheActivity_data() {
            return [
                { tag: "idle", activity: ChatStore.Idle, mood: "idle", icon: "mic.fill" },
                { tag: "listening", activity: ChatStore.Listening, mood: "listening", icon: "waveform" },
                { tag: "thinking", activity: ChatStore.Thinking, mood: "thinking", icon: "sparkles" },
                { tag: "searching", activity: ChatStore.Searching, mood: "searching", icon: "globe.americas.fill" },
                { tag: "another tool", activity: ChatStore.UsingTool, mood: "thinking", icon: "sparkles" },
                { tag: "speaking", activity: ChatStore.Speaking, mood: "speaking", icon: "speaker.wave.2.fill" }
            ]
        }

        function test_orbAndPillFollowTheActivity(data) {
            store.activity = data.activity
            compare(findChild(rootView, "orb").mood, data.mood)
            compare(findChild(rootView, "statusPill").symbol, data.icon)
        }

        function test_conversationSheetAndNewConversation() {
            store.setMessages([store.message("assistant", "Salut"), store.message("user", "Bună"), store.message("assistant", "Ce faci?")])
            mouseClick(findChild(rootView, "conversationButton"))
            var sheet = findChild(rootView, "conversationSheet")
            tryVerify(function () { return sheet.opened })
            compare(findChild(sheet.contentItem, "conversationList").count, 3)
            mouseClick(findChild(sheet.contentItem, "doneButton"))
            tryVerify(function () { return !sheet.visible })

            wait(Qt.styleHints.mouseDoubleClickInterval + 50)
            mouseClick(findChild(rootView, "newConversationButton"))
            compare(actions.calls, [["clearConversation"]])
        }

        function openWindow(trayAvailable) {
            var component = Qt.createComponent("qrc:/qt/qml/Kelo/Main.qml")
            compare(component.status, Component.Ready, component.errorString())
            var window = component.createObject(null, { store: Real.store, actions: Real.actions, trayAvailable: trayAvailable })
            window.show()
            tryVerify(function () { return window.visible })
            return window
        }

        // Without a tray, closing really closes; with one, the window hides and stops drawing the orb.
        function test_closingHidesToTheTrayAndStopsTheOrb() {
            Real.store.settings.backgroundConversationEnabled = true
            var accepted = []
            var trayless = openWindow(false)
            trayless.closing.connect(function (close) { accepted.push(close.accepted) })
            trayless.close()
            tryVerify(function () { return !trayless.visible })
            trayless.destroy()

            var window = openWindow(true)
            window.closing.connect(function (close) { accepted.push(close.accepted) })
            var root = findChild(window.contentItem, "rootView")
            var orb = findChild(window.contentItem, "orb")
            tryVerify(function () { return root.animating })

            window.close()
            tryVerify(function () { return !window.visible })
            tryVerify(function () { return !root.animating })
            wait(50)
            var frozen = orb.t
            wait(300)
            compare(orb.t, frozen, "a hidden window draws no frames")
            compare(accepted, [true, false], "closed without a tray, only hidden with one")

            window.show()
            tryVerify(function () { return root.animating })
            tryVerify(function () { return orb.t > frozen })
            window.destroy()
        }

        // Missing or unknown values from the store fall back instead of breaking a view; the orb
        // follows only a listening voice and draws rest sparingly, every active mood fluidly.
        function test_viewLogic() {
            compare(Logic.latestAnswerText(null), null)
            verify(!Logic.canSend(undefined, false))
            verify(!Logic.isGalleryItemConnected(null, "github"))
            compare(Logic.orbPalette("bogus"), Logic.orbPalette("idle"))
            fuzzyCompare(Logic.ringAngle(10, "bogus"), Logic.ringAngle(10, "idle"), 1e-9)
            compare(Logic.modelOptionLabel({ name: "Big Pickle", isFree: true }), "Big Pickle  ·  FREE")
            compare(Logic.modelOptionLabel({ name: "GPT 5", isFree: false }), "GPT 5")
            compare(Logic.coreScale("listening", 0), 1)
            verify(Logic.coreScale("listening", 7) > 1)
            compare(Logic.coreScale("idle", 1), 1, "only listening follows the voice")
            verify(Logic.frameInterval("idle") >= 1 / 15)
            for (var i = 1; i < Logic.moods.length; ++i)
                verify(Logic.frameInterval(Logic.moods[i]) <= 1 / 30 + 1e-9, Logic.moods[i])
        }
    }
}
