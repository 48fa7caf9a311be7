import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// A caption over a text field; `secret` hides what is typed. Edits are reported as they happen.
ColumnLayout {
    id: row
    property string label
    property string value
    property string placeholder
    property bool secret: false
    signal edited(string text)

    Layout.fillWidth: true
    spacing: 2
    Label {
        visible: row.label.length > 0
        text: row.label
        color: Theme.secondaryText
        font.pixelSize: 12
    }
    TextField {
        id: field
        objectName: "field"
        Layout.fillWidth: true
        text: row.value
        placeholderText: row.placeholder
        echoMode: row.secret ? TextInput.Password : TextInput.Normal
        onTextEdited: row.edited(text)
        selectByMouse: true
    }
}
