import QtQuick
import QtQuick.Controls

// One message of the conversation sheet: the user's on the right, Kelo's on the left.
Item {
    id: bubble
    property var message
    readonly property bool fromUser: message && message.role === "user"
    readonly property bool fromSystem: message && message.role === "system"

    implicitHeight: box.height + 8
    readonly property real maxTextWidth: bubble.width * 0.82 - 28

    // The unwrapped width of the text, measured apart so the label's own width does not feed back.
    TextMetrics {
        id: metrics
        font: label.font
        text: bubble.message ? bubble.message.text : ""
    }

    Rectangle {
        id: box
        width: label.width + 28
        height: label.implicitHeight + 20
        radius: 16
        anchors.right: bubble.fromUser ? parent.right : undefined
        anchors.left: bubble.fromUser ? undefined : parent.left
        anchors.horizontalCenter: bubble.fromSystem ? parent.horizontalCenter : undefined
        color: bubble.fromUser ? Theme.userBubble : Theme.cardStrong
        border.color: bubble.fromUser ? "transparent" : Theme.cardBorder
        Label {
            id: label
            x: 14; y: 10
            width: Math.min(bubble.maxTextWidth, Math.ceil(metrics.advanceWidth) + 2)
            text: bubble.message ? bubble.message.text : ""
            wrapMode: Text.Wrap
            textFormat: Text.PlainText
            color: bubble.fromSystem ? Theme.secondaryText : Theme.text
            font.pixelSize: 15
            lineHeight: 1.15
        }
    }
}
