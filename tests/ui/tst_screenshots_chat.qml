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

        function conversation(count) {
            return [store.message("assistant", "Salut. Sunt Kelo. Ține apăsat companionul și vorbește."),
                    store.message("user", "Ce vreme va fi mâine la Cluj?"),
                    store.message("assistant", "Mâine la Cluj-Napoca se anunță cer parțial noros, cu maxime de 14 °C și vânt slab dinspre vest. Seara s-ar putea să plouă puțin, așa că ia o umbrelă dacă ieși.")].slice(0, count)
        }

        function test_chatMoods_data() {
            var busy = "Companion activ · poți continua și din fundal"
            return [
                { tag: "chat-idle-no-key", noKey: true, activity: "Adaugă cheia OpenCode Zen în Setări" },
                { tag: "chat-idle", activity: "Ține apăsat pentru a vorbi" },
                { tag: "chat-listening", listening: true, level: 0.6, activity: "Kelo este gata" },
                { tag: "chat-searching", thinking: true, tool: "Caut pe internet…", activity: busy, messages: 2 },
                { tag: "chat-thinking", thinking: true, activity: busy, messages: 2 },
                { tag: "chat-speaking", speaking: true, activity: busy, messages: 3 },
                { tag: "chat-conversation-sheet", sheet: true, activity: "Ține apăsat pentru a vorbi", messages: 3 }
            ]
        }

        function test_chatMoods(data) {
            store.hasZenKey = !data.noKey
            store.toolStatus = data.tool || ""
            store.isThinking = !!data.thinking
            store.recognizer.isListening = !!data.listening
            store.synthesizer.isSpeaking = !!data.speaking
            store.recognizer.inputLevel = data.level || 0
            store.activityText = data.activity
            store.messages = conversation(data.messages || 1)
            rootView.chatView.showConversation = !!data.sheet
            if (data.sheet)
                tryVerify(function () { return findChild(rootView, "conversationSheet").opened })
            shoot(data.tag)
            rootView.chatView.showConversation = false
        }
    }
}
