import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// The whole visible conversation, over the chat screen.
Popup {
    id: sheet
    // A list model with the roles role, text, fromApp and date.
    property var messages: null

    modal: true
    focus: true
    anchors.centerIn: Overlay.overlay
    width: Math.min(parent ? parent.width - 32 : 600, 720)
    height: parent ? parent.height - 48 : 600
    padding: 0
    Overlay.modal: Rectangle { color: Qt.rgba(0.01, 0.02, 0.05, 0.72) }
    background: Rectangle {
        radius: 22
        color: "#10152A"
        border.color: Theme.cardBorder
    }

    contentItem: ColumnLayout {
        spacing: 0
        RowLayout {
            Layout.fillWidth: true
            Layout.margins: 16
            Label {
                text: "Conversație"
                font.pixelSize: 20
                font.bold: true
                color: Theme.text
                Layout.fillWidth: true
            }
            Button {
                objectName: "doneButton"
                text: "Gata"
                flat: true
                font.capitalization: Font.MixedCase
                focusPolicy: Qt.NoFocus
                onClicked: sheet.close()
            }
        }
        Rectangle { Layout.fillWidth: true; height: 1; color: Theme.cardBorder }
        ListView {
            id: list
            objectName: "conversationList"
            Layout.fillWidth: true
            Layout.fillHeight: true
            clip: true
            spacing: 6
            topMargin: 12
            bottomMargin: 12
            leftMargin: 16
            rightMargin: 16
            model: sheet.messages
            delegate: ConversationBubble {
                width: list.width - list.leftMargin - list.rightMargin
                message: model
            }
            onCountChanged: Qt.callLater(list.positionViewAtEnd)
            ScrollBar.vertical: ScrollBar {}
        }
    }
    onOpened: list.positionViewAtEnd()
}
