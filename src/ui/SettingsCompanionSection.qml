import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Kelo.Core

// The companion's personality, answer length and the user's own instructions.
FormSection {
    id: section
    required property AppSettings settings

    title: "Companion"

    RowLayout {
        Layout.fillWidth: true
        Label { text: "Personalitate"; color: Theme.text; font.pixelSize: 15; Layout.fillWidth: true }
        ComboBox {
            objectName: "personalityPicker"
            focusPolicy: Qt.NoFocus
            Layout.preferredWidth: 200
            model: ViewPresets.personalities
            currentIndex: model.indexOf(section.settings.personality)
            onActivated: index => section.settings.personality = model[index]
        }
    }
    RowLayout {
        Layout.fillWidth: true
        Label { text: "Lungime răspuns"; color: Theme.text; font.pixelSize: 15; Layout.fillWidth: true }
        ComboBox {
            objectName: "lengthPicker"
            focusPolicy: Qt.NoFocus
            Layout.preferredWidth: 200
            model: ViewPresets.responseLengths
            currentIndex: model.indexOf(section.settings.responseLength)
            onActivated: index => section.settings.responseLength = model[index]
        }
    }
    Label { text: "Instrucțiuni personale"; color: Theme.secondaryText; font.pixelSize: 12 }
    TextArea {
        objectName: "customPrompt"
        Layout.fillWidth: true
        Layout.minimumHeight: 90
        wrapMode: TextEdit.Wrap
        text: section.settings.customPrompt
        onTextChanged: if (text !== section.settings.customPrompt) section.settings.customPrompt = text
        placeholderText: "Instrucțiuni personale"
    }
}
