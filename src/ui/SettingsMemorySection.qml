import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Kelo
import Kelo.Core

// What Kelo remembers, the switch for it, and the reset of memory and history.
FormSection {
    id: section
    required property ChatStore store
    property CompanionActions actions
    readonly property string summary: store.memory.summary.trim()

    title: "Memorie"
    footer: "Memoria este compactată automat de model și stocată local. Cheile API și tokenurile sunt excluse din instrucțiunea de memorare."

    SwitchRow {
        text: "Memorie automată"
        checked: section.store.settings.memoryEnabled
        onToggled: on => section.store.settings.memoryEnabled = on
    }
    Label { text: "Ce își amintește Kelo"; color: Theme.secondaryText; font.pixelSize: 12 }
    Label {
        objectName: "memorySummary"
        text: section.summary.length > 0 ? section.summary : ViewPresets.memoryPlaceholder
        color: Theme.text
        font.pixelSize: 14
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }
    ActionButton {
        objectName: "clearMemoryButton"
        text: "Resetează memoria și istoricul"
        symbol: "trash"
        destructive: true
        onClicked: section.actions.clearMemory()
    }
}
