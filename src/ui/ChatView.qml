import QtQuick
import QtQuick.Controls
import QtQuick.Controls.Material
import QtQuick.Layouts
import Kelo.Core
import "ViewLogic.js" as Logic

// The main screen: the orb to hold and talk, the state line, the latest answer, the composer and
// the conversation sheet.
FocusScope {
    id: view

    required property var store
    property var actions

    Material.theme: Material.Dark
    Material.accent: Theme.accent
    // Follows the window's visibility so that a hidden window draws nothing.
    property bool animating: true

    readonly property string mood: view.moodOf(store ? store.activity : ChatStore.Idle)
    // The latest answer of the model; null when there is none to show (the app's own texts never are).
    property var answerText: null

    function moodOf(activity) {
        switch (activity) {
        case ChatStore.Listening: return "listening"
        case ChatStore.Thinking:
        case ChatStore.UsingTool: return "thinking"
        case ChatStore.Searching: return "searching"
        case ChatStore.Speaking: return "speaking"
        default: return "idle"
        }
    }

    function refreshAnswer() {
        answerText = Logic.latestAnswerText(store ? store.conversation : null)
    }

    // The streamed answer grows in place, so the card follows every change of the list, not only its length.
    Connections {
        target: view.store ? view.store.conversation : null
        function onDataChanged() { view.refreshAnswer() }
        function onRowsInserted() { view.refreshAnswer() }
        function onRowsRemoved() { view.refreshAnswer() }
        function onModelReset() { view.refreshAnswer() }
    }
    onStoreChanged: refreshAnswer()
    Component.onCompleted: refreshAnswer()
    property alias showConversation: sheet.visible
    property alias orbPressed: gesture.orbPressed

    PushToTalkGesture {
        id: gesture
        store: view.store
    }

    // Space talks while no text field holds the focus (a focused field takes the key itself).
    Keys.onPressed: event => {
        if (event.key !== Qt.Key_Space)
            return
        event.accepted = true
        if (!event.isAutoRepeat)
            gesture.begin()
    }
    Keys.onReleased: event => {
        if (event.key !== Qt.Key_Space)
            return
        event.accepted = true
        if (!event.isAutoRepeat)
            gesture.end()
    }

    // Hands the keyboard back to push-to-talk (a FocusScope alone would give it to the composer again).
    function takeKeyboard() {
        keyCatcher.forceActiveFocus()
    }

    Item {
        id: keyCatcher
        focus: true
    }

    function send() {
        if (!Logic.canSend(store.draft, store.isThinking))
            return
        store.sendDraft()
    }

    CompanionBackground {
        anchors.fill: parent
        palette: Logic.orbPalette(view.mood)
    }

    // A click on empty space hands the keyboard back to push-to-talk.
    MouseArea {
        anchors.fill: parent
        onPressed: mouse => { view.takeKeyboard(); mouse.accepted = false }
    }

    ColumnLayout {
        id: column
        anchors.fill: parent
        anchors.margins: 20
        anchors.leftMargin: Math.max(20, (parent.width - Theme.contentMaxWidth) / 2)
        anchors.rightMargin: anchors.leftMargin
        spacing: 14

        RowLayout {
            Layout.fillWidth: true
            spacing: 10
            ColumnLayout {
                Layout.fillWidth: true
                spacing: 2
                Label {
                    Layout.fillWidth: true
                    text: "Companion Kelo"
                    font.pixelSize: 22
                    font.bold: true
                    color: Theme.text
                }
                Label {
                    objectName: "modelLabel"
                    Layout.fillWidth: true
                    elide: Text.ElideRight
                    text: Logic.modelLabel(view.store)
                    font.pixelSize: 13
                    color: view.store && view.store.hasZenKey ? Theme.secondaryText : Theme.warning
                }
            }
            IconButton {
                objectName: "conversationButton"
                symbol: "bubble.left.and.bubble.right"
                tip: "Conversație"
                onClicked: sheet.open()
            }
            IconButton {
                objectName: "newConversationButton"
                symbol: "plus"
                tip: "Conversație nouă"
                onClicked: view.actions.clearConversation()
            }
        }

        CompanionOrb {
            id: orb
            objectName: "orb"
            Layout.fillWidth: true
            Layout.fillHeight: true
            Layout.minimumHeight: 180
            Layout.maximumHeight: 340
            mood: view.mood
            audioLevel: view.recognizer ? view.recognizer.inputLevel : 0
            animating: view.animating
            pressed: gesture.orbPressed

            MouseArea {
                id: orbArea
                objectName: "orbArea"
                anchors.centerIn: parent
                width: orb.size * 0.8
                height: width
                preventStealing: true
                cursorShape: Qt.PointingHandCursor
                // Leaving the orb while held does not cancel; only the release ends the talk.
                onPressed: { view.takeKeyboard(); gesture.begin() }
                onPositionChanged: gesture.begin()
                onReleased: gesture.end()
                onCanceled: gesture.end()
            }
        }

        StatusPill {
            objectName: "statusPill"
            Layout.alignment: Qt.AlignHCenter
            symbol: Logic.stateIcon(view.mood)
            text: view.store ? view.store.activityText : ""
        }

        // A save that failed stays in sight until a later one succeeds.
        Label {
            objectName: "saveError"
            readonly property string message: view.store && view.store.memory && view.store.memory.saveError
                ? view.store.memory.saveError
                : (view.store && view.store.settings && view.store.settings.saveError ? view.store.settings.saveError : "")
            visible: message.length > 0
            text: message
            Layout.fillWidth: true
            horizontalAlignment: Text.AlignHCenter
            wrapMode: Text.Wrap
            color: Theme.warning
            font.pixelSize: 13
        }

        Card {
            id: answerCard
            objectName: "answerCard"
            visible: view.answerText !== null
            Layout.fillWidth: true
            Layout.preferredHeight: Math.min(answerLabel.implicitHeight + 32, 220)
            ScrollView {
                anchors.fill: parent
                anchors.margins: 16
                clip: true
                Label {
                    id: answerLabel
                    objectName: "answerText"
                    width: answerCard.width - 32
                    text: view.answerText !== null ? view.answerText : ""
                    wrapMode: Text.Wrap
                    textFormat: Text.PlainText
                    color: Theme.text
                    font.pixelSize: 16
                    lineHeight: 1.2
                }
            }
        }

        Card {
            id: hintCard
            objectName: "hintCard"
            visible: view.answerText === null
            Layout.fillWidth: true
            Layout.preferredHeight: hintRow.implicitHeight + 32
            RowLayout {
                id: hintRow
                anchors.fill: parent
                anchors.margins: 16
                spacing: 12
                SymbolIcon { symbol: "hand.tap"; size: 22; color: Theme.accent }
                Label {
                    objectName: "hintText"
                    Layout.fillWidth: true
                    text: Logic.hintText(view.store && view.store.hasZenKey)
                    wrapMode: Text.Wrap
                    color: Theme.secondaryText
                    font.pixelSize: 14
                }
            }
        }

        RowLayout {
            Layout.fillWidth: true
            spacing: 10
            TextField {
                id: composer
                objectName: "composer"
                Layout.fillWidth: true
                placeholderText: "Scrie un mesaj…"
                text: view.store ? view.store.draft : ""
                onTextEdited: view.store.draft = text
                onAccepted: view.send()
                color: Theme.text
                leftPadding: 18
                rightPadding: 18
                topPadding: 0
                bottomPadding: 0
                verticalAlignment: TextInput.AlignVCenter
                font.pixelSize: 15
                background: Rectangle {
                    implicitHeight: 48
                    radius: 24
                    color: Qt.rgba(1, 1, 1, 0.07)
                    border.color: composer.activeFocus ? Theme.accent : Theme.cardBorder
                }
            }
            RoundButton {
                id: sendButton
                objectName: "sendButton"
                focusPolicy: Qt.NoFocus
                enabled: view.store && Logic.canSend(view.store.draft, view.store.isThinking)
                implicitWidth: 48
                implicitHeight: 48
                onClicked: view.send()
                contentItem: Item {
                    SymbolIcon {
                        anchors.centerIn: parent
                        symbol: "arrow.up"
                        size: 20
                        color: sendButton.enabled ? "#06251C" : Theme.tertiaryText
                    }
                }
                background: Rectangle {
                    radius: width / 2
                    color: sendButton.enabled ? (sendButton.down ? Theme.accentStrong : Theme.accent) : Qt.rgba(1, 1, 1, 0.08)
                }
            }
        }
    }

    ConversationSheet {
        id: sheet
        objectName: "conversationSheet"
        parent: view
        messages: view.store ? view.store.conversation : null
        onClosed: view.takeKeyboard()
    }
}
