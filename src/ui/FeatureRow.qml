import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// What the companion can do: a tinted symbol, a title and a subtitle.
RowLayout {
    id: row
    property string icon
    property string title
    property string subtitle
    property color tint: Theme.accent

    Layout.fillWidth: true
    spacing: 12
    Rectangle {
        Layout.preferredWidth: 36
        Layout.preferredHeight: 36
        radius: 10
        color: Qt.rgba(row.tint.r, row.tint.g, row.tint.b, 0.16)
        SymbolIcon { anchors.centerIn: parent; symbol: row.icon; size: 18; color: row.tint }
    }
    ColumnLayout {
        Layout.fillWidth: true
        spacing: 1
        Label { text: row.title; color: Theme.text; font.pixelSize: 15; font.bold: true }
        Label {
            text: row.subtitle
            color: Theme.secondaryText
            font.pixelSize: 12
            wrapMode: Text.Wrap
            Layout.fillWidth: true
        }
    }
}
