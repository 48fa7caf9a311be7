import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// A labelled switch with an optional note; `toggled` carries the new state to the caller.
ColumnLayout {
    id: row
    property string text
    property string note
    property bool checked
    signal toggled(bool checked)

    Layout.fillWidth: true
    spacing: 2
    RowLayout {
        Layout.fillWidth: true
        Label {
            text: row.text
            color: Theme.text
            font.pixelSize: 15
            wrapMode: Text.Wrap
            Layout.fillWidth: true
        }
        Switch {
            id: toggle
            objectName: "switch"
            focusPolicy: Qt.NoFocus
            checked: row.checked
            onToggled: row.toggled(checked)
            // Drawn here so it looks the same with and without a GPU (the stock handle's shadow needs one).
            indicator: Rectangle {
                implicitWidth: 46
                implicitHeight: 26
                x: toggle.leftPadding
                y: (toggle.height - height) / 2
                radius: height / 2
                color: toggle.checked ? Theme.accentStrong : Qt.rgba(1, 1, 1, 0.16)
                Behavior on color { ColorAnimation { duration: 120 } }
                Rectangle {
                    width: 20
                    height: 20
                    radius: 10
                    y: 3
                    x: toggle.checked ? parent.width - width - 3 : 3
                    color: toggle.checked ? "#FFFFFF" : "#C9CEE0"
                    Behavior on x { NumberAnimation { duration: 120; easing.type: Easing.OutCubic } }
                }
            }
        }
    }
    Label {
        visible: row.note.length > 0
        text: row.note
        color: Theme.tertiaryText
        font.pixelSize: 12
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }
}
