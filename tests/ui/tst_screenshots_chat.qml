import QtQuick
import QtQuick.Controls
import QtTest
import Kelo

// Offscreen pictures of the chat screen in each of its moods, saved for review next to the build.
Item {
    id: root
    width: 560
    height: 940

    FakeStore { id: store }
    FakeActions { id: actions }

    RootView {
        id: rootView
        anchors.fill: parent
        store: store
        actions: actions
    }

    TestCase {
        name: "ChatScreenshots"
        when: windowShown

        function shoot(fileName) {
            waitForRendering(rootView)
            wait(120)
            var image = grabImage(root)
            verify(image.width > 0 && image.height > 0, fileName)
            image.save(screenshotDir + "/" + fileName + ".png")
        }

        function reset() {
            store.hasZenKey = true
            store.toolStatus = ""
            store.isThinking = false
            store.speech.isListening = false
            store.speech.isSpeaking = false
            store.speech.isPreparingVoice = false
            store.speech.inputLevel = 0
            store.messages = [store.message("assistant", "Salut. Sunt Kelo. Ține apăsat companionul și vorbește.")]
        }

        function conversation() {
            return [store.message("assistant", "Salut. Sunt Kelo. Ține apăsat companionul și vorbește."),
                    store.message("user", "Ce vreme va fi mâine la Cluj?"),
                    store.message("assistant", "Mâine la Cluj-Napoca se anunță cer parțial noros, cu maxime de 14 °C și vânt slab dinspre vest. Seara s-ar putea să plouă puțin, așa că ia o umbrelă dacă ieși.")]
        }

        function test_1_idleWithoutKey() {
            reset()
            store.hasZenKey = false
            store.activityText = "Adaugă cheia OpenCode Zen în Setări"
            shoot("chat-idle-no-key")
        }

        function test_2_idle() {
            reset()
            store.activityText = "Ține apăsat pentru a vorbi"
            shoot("chat-idle")
        }

        function test_3_listening() {
            reset()
            store.speech.isListening = true
            store.speech.inputLevel = 0.6
            store.activityText = "Kelo este gata"
            shoot("chat-listening")
        }

        function test_4_searching() {
            reset()
            store.isThinking = true
            store.toolStatus = "Caut pe internet…"
            store.activityText = "Companion activ · poți continua și din fundal"
            store.messages = conversation().slice(0, 2)
            shoot("chat-searching")
        }

        function test_5_thinking() {
            reset()
            store.isThinking = true
            store.activityText = "Companion activ · poți continua și din fundal"
            store.messages = conversation().slice(0, 2)
            shoot("chat-thinking")
        }

        function test_6_speaking() {
            reset()
            store.speech.isSpeaking = true
            store.activityText = "Companion activ · poți continua și din fundal"
            store.messages = conversation()
            shoot("chat-speaking")
        }

        function test_7_conversationSheet() {
            reset()
            store.messages = conversation()
            rootView.chatView.showConversation = true
            tryVerify(function () { return findChild(rootView, "conversationSheet").opened })
            shoot("chat-conversation-sheet")
            rootView.chatView.showConversation = false
        }
    }
}
