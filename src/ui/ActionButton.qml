import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// A text button with a themed icon and an optional busy state.
Button {
    id: button
    property string symbol
    property bool busy: false
    property color tint: Theme.accent
    property bool destructive: false

    flat: true
    focusPolicy: Qt.NoFocus
    contentItem: RowLayout {
        spacing: 8
        BusyIndicator {
            visible: button.busy
            running: button.busy
            Layout.preferredWidth: 20
            Layout.preferredHeight: 20
        }
        SymbolIcon {
            visible: !button.busy && button.symbol.length > 0
            symbol: button.symbol
            size: 18
            color: button.destructive ? Theme.danger : (button.enabled ? button.tint : Theme.tertiaryText)
        }
        Label {
            text: button.text
            color: button.destructive ? Theme.danger : (button.enabled ? button.tint : Theme.tertiaryText)
            font.pixelSize: 14
            font.bold: true
        }
    }
}
