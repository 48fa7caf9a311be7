import QtQuick
import QtQuick.Controls
import QtTest
import Kelo

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
            store.messages = []
            store.draft = ""
            store.toolStatus = ""
            store.isThinking = false
            store.hasZenKey = true
            store.recognizer.isListening = false
            store.synthesizer.isSpeaking = false
            rootView.selection = 0
            chat.showConversation = false
            chat.takeKeyboard()
            waitForRendering(rootView)
        }

        function orbArea() { return findChild(rootView, "orbArea") }

        function test_opensOnTheChatTab() {
            compare(findChild(rootView, "tabStack").currentIndex, 0)
            compare([0, 1, 2].map(function (i) { return findChild(rootView, "tab_" + i).text }), ["Kelo", "Conexiuni", "Setări"])
        }

        // One press, one turn: moving while held, even far outside the orb, neither begins again nor cancels.
        function test_holdingTheOrbBeginsOnceAndEndsOnce() {
            var area = orbArea()
            mousePress(area, area.width / 2, area.height / 2)
            verify(chat.orbPressed)
            for (var i = 1; i <= 6; ++i)
                mouseMove(area, area.width / 2 + i * 15, area.height / 2 - i * 10)
            mouseMove(area, area.width * 2, -area.height)
            compare(store.calls, ["begin"])
            verify(chat.orbPressed)
            mouseRelease(area, area.width * 2, -area.height)
            compare(store.calls, ["begin", "end"])
            verify(!chat.orbPressed)
        }

        function test_spaceHoldsToTalkUnlessTypingInTheComposer() {
            keyPress(Qt.Key_Space)
            // Key repeats while held change nothing.
            keyPress(Qt.Key_Space, Qt.NoModifier, -1)
            keyPress(Qt.Key_Space, Qt.NoModifier, -1)
            keyRelease(Qt.Key_Space)
            compare(store.calls, ["begin", "end"])

            findChild(rootView, "composer").forceActiveFocus()
            keyClick(Qt.Key_Space)
            compare(store.calls, ["begin", "end"], "a focused text field keeps its spaces")
            compare(store.draft, " ")
        }

        function test_enterAndTheButtonSendTheDraftButNotABlankOne() {
            var send = findChild(rootView, "sendButton")
            findChild(rootView, "composer").forceActiveFocus()
            keyClick(Qt.Key_Space)
            keyClick(Qt.Key_Return)
            compare(store.calls, [], "blank draft")
            verify(!send.enabled)

            keyClick(Qt.Key_S)
            keyClick(Qt.Key_A)
            compare(store.draft, " sa")
            verify(send.enabled)
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

        function test_theHintShowsForTheWelcomeOrAMissingKey() {
            store.messages = [store.message("assistant", "Salut. Sunt Kelo. Ține apăsat companionul și vorbește.")]
            verify(findChild(rootView, "hintCard").visible)
            verify(!findChild(rootView, "answerCard").visible)

            store.messages = store.messages.concat([store.message("user", "Salut"), store.message("assistant", "Bună! Ce facem azi?")])
            verify(!findChild(rootView, "hintCard").visible)
            compare(findChild(rootView, "answerText").text, "Bună! Ce facem azi?")

            store.messages = store.messages.concat([store.message("assistant", "Conversație nouă. Memoria utilă rămâne disponibilă.")])
            verify(findChild(rootView, "hintCard").visible)

            store.hasZenKey = false
            compare(findChild(rootView, "hintText").text, "Adaugă cheia OpenCode Zen în Setări. Big Pickle este selectat implicit.")
            compare(findChild(rootView, "modelLabel").text, "Configurează Zen")
            store.hasZenKey = true
            compare(findChild(rootView, "modelLabel").text, "Big Pickle")
        }

        function test_statusPillFollowsTheMood() {
            store.recognizer.isListening = true
            store.toolStatus = "Caut pe internet…"
            compare(findChild(rootView, "orb").mood, "listening")
            store.recognizer.isListening = false
            compare(findChild(rootView, "orb").mood, "searching")
            compare(findChild(rootView, "statusPill").symbol, "globe.americas.fill")
            store.activityText = "Companion activ · poți continua și din fundal"
            compare(findChild(rootView, "statusText").text, "Companion activ · poți continua și din fundal")
        }

        function test_conversationSheetAndNewConversation() {
            store.messages = [store.message("assistant", "Salut"), store.message("user", "Bună"), store.message("assistant", "Ce faci?")]
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
    }
}
