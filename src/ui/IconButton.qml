import QtQuick
import QtQuick.Controls

// A round, focus-less tool button with a themed icon (it must not swallow the Space of push-to-talk).
RoundButton {
    id: button
    property string symbol
    property color tint: Theme.text
    property string tip

    focusPolicy: Qt.NoFocus
    flat: true
    implicitWidth: 44
    implicitHeight: 44
    padding: 10
    contentItem: Item {
        SymbolIcon {
            anchors.centerIn: parent
            symbol: button.symbol
            size: 20
            color: button.enabled ? button.tint : Theme.tertiaryText
        }
    }
    background: Rectangle {
        radius: width / 2
        color: button.down ? Theme.cardStrong : (button.hovered ? Theme.card : Qt.rgba(1, 1, 1, 0.04))
        border.color: Theme.cardBorder
    }
    ToolTip.visible: tip.length > 0 && hovered
    ToolTip.text: tip
    ToolTip.delay: 600
}
