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
            store.speech.isListening = false
            store.speech.isSpeaking = false
            rootView.selection = 0
            chat.showConversation = false
            chat.takeKeyboard()
            waitForRendering(rootView)
        }

        function orbArea() { return findChild(rootView, "orbArea") }

        function test_opensOnTheChatTab() {
            compare(findChild(rootView, "tabStack").currentIndex, 0)
            compare(findChild(rootView, "tab_0").text, "Kelo")
            compare(findChild(rootView, "tab_1").text, "Conexiuni")
            compare(findChild(rootView, "tab_2").text, "Setări")
        }

        function test_aTapBeginsOnceAndEndsOnce() {
            var area = orbArea()
            mousePress(area, area.width / 2, area.height / 2)
            mouseRelease(area, area.width / 2, area.height / 2)
            compare(store.calls, ["begin", "end"])
        }

        function test_draggingWhileHeldDoesNotBeginAgainAndLeavingTheOrbDoesNotCancel() {
            var area = orbArea()
            mousePress(area, area.width / 2, area.height / 2)
            verify(chat.orbPressed)
            for (var i = 1; i <= 6; ++i)
                mouseMove(area, area.width / 2 + i * 15, area.height / 2 - i * 10)
            // Far outside the orb, still held.
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

            var composer = findChild(rootView, "composer")
            composer.forceActiveFocus()
            keyClick(Qt.Key_Space)
            compare(store.calls, ["begin", "end"], "a focused text field keeps its spaces")
            compare(store.draft, " ")
        }

        function test_enterSendsTheDraftAndBlankDraftsDoNot() {
            var composer = findChild(rootView, "composer")
            composer.forceActiveFocus()
            keyClick(Qt.Key_Space)
            keyClick(Qt.Key_Return)
            compare(store.calls, [], "blank draft")
            verify(!findChild(rootView, "sendButton").enabled)

            keyClick(Qt.Key_S)
            keyClick(Qt.Key_A)
            compare(store.draft, " sa")
            verify(findChild(rootView, "sendButton").enabled)
            keyClick(Qt.Key_Return)
            compare(store.calls, ["send: sa"])

            store.isThinking = true
            verify(!findChild(rootView, "sendButton").enabled)
            keyClick(Qt.Key_Enter)
            compare(store.calls, ["send: sa"], "no second turn while one runs")
        }

        function test_sendButtonSends() {
            store.draft = "Ce vreme e?"
            mouseClick(findChild(rootView, "sendButton"))
            compare(store.calls, ["send:Ce vreme e?"])
        }

        function test_onlyTheWelcomeShowsTheHint() {
            store.messages = [store.message("assistant", "Salut. Sunt Kelo. Ține apăsat companionul și vorbește.")]
            verify(findChild(rootView, "hintCard").visible)
            verify(!findChild(rootView, "answerCard").visible)

            store.messages = store.messages.concat([store.message("user", "Salut"), store.message("assistant", "Bună! Ce facem azi?")])
            verify(!findChild(rootView, "hintCard").visible)
            verify(findChild(rootView, "answerCard").visible)
            compare(findChild(rootView, "answerText").text, "Bună! Ce facem azi?")

            store.messages = store.messages.concat([store.message("assistant", "Conversație nouă. Memoria utilă rămâne disponibilă.")])
            verify(findChild(rootView, "hintCard").visible)
        }

        function test_hintAndModelLabelWithoutAKey() {
            store.hasZenKey = false
            compare(findChild(rootView, "hintText").text, "Adaugă cheia OpenCode Zen în Setări. Big Pickle este selectat implicit.")
            compare(findChild(rootView, "modelLabel").text, "Configurează Zen")
            store.hasZenKey = true
            compare(findChild(rootView, "modelLabel").text, "Big Pickle")
        }

        function test_statusPillFollowsTheMood() {
            store.speech.isListening = true
            store.toolStatus = "Caut pe internet…"
            compare(findChild(rootView, "orb").mood, "listening")
            store.speech.isListening = false
            compare(findChild(rootView, "orb").mood, "searching")
            compare(findChild(rootView, "statusPill").symbol, "globe.americas.fill")
            store.activityText = "Companion activ · poți continua și din fundal"
            compare(findChild(rootView, "statusText").text, "Companion activ · poți continua și din fundal")
        }

        function test_conversationSheetListsTheVisibleMessagesAndCloses() {
            store.messages = [store.message("assistant", "Salut"), store.message("user", "Bună"), store.message("assistant", "Ce faci?")]
            mouseClick(findChild(rootView, "conversationButton"))
            var sheet = findChild(rootView, "conversationSheet")
            tryVerify(function () { return sheet.opened })
            compare(findChild(sheet.contentItem, "conversationList").count, 3)
            mouseClick(findChild(sheet.contentItem, "doneButton"))
            tryVerify(function () { return !sheet.visible })
        }

        function test_newConversationGoesThroughTheActions() {
            mouseClick(findChild(rootView, "newConversationButton"))
            compare(actions.calls, [["clearConversation"]])
        }

        function test_theOrbStopsRequestingFramesWhenNotAnimating() {
            var orb = findChild(rootView, "orb")
            rootView.animating = true
            var t0 = orb.t
            tryVerify(function () { return orb.t > t0 }, 2000, "the clock runs while shown")
            rootView.animating = false
            wait(100)
            var frozen = orb.t
            wait(300)
            compare(orb.t, frozen)
            rootView.animating = true
        }
    }
}
