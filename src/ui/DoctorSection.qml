import QtQuick
import QtQuick.Controls
import QtQuick.Layouts

// The checks of `kelo doctor`: one line per thing Kelo needs, fine or what to do.
FormSection {
    id: section
    property var doctor
    readonly property var checks: doctor ? doctor.checks : []
    readonly property bool running: !!doctor && doctor.running

    objectName: "doctorSection"
    title: "Verificarea sistemului"
    footer: "Aceleași verificări le face „kelo doctor” în terminal."

    Repeater {
        model: section.checks
        RowLayout {
            objectName: "doctorCheck"
            Layout.fillWidth: true
            spacing: 8
            SymbolIcon {
                Layout.alignment: Qt.AlignTop
                symbol: modelData.ok ? "checkmark.circle" : "exclamationmark.circle"
                size: 16
                color: modelData.ok ? Theme.accent : (modelData.neededForVoice ? Theme.danger : Theme.warning)
            }
            Label {
                text: modelData.title + ": " + modelData.detail
                color: Theme.text
                font.pixelSize: 13
                wrapMode: Text.Wrap
                Layout.fillWidth: true
            }
        }
    }
    Label {
        objectName: "doctorVerdict"
        visible: section.checks.length > 0 && !section.running
        text: section.doctor && section.doctor.readyForVoice
              ? "Kelo are tot ce îi trebuie pentru o tură vocală."
              : "O tură vocală nu poate avea loc până nu rezolvi liniile marcate."
        color: section.doctor && section.doctor.readyForVoice ? Theme.accent : Theme.danger
        font.pixelSize: 13
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }
    ActionButton {
        objectName: "runDoctorButton"
        text: section.running ? "Verific…" : "Verifică"
        symbol: "checkmark.circle"
        busy: section.running
        enabled: !!section.doctor && !section.running
        onClicked: section.doctor.start(true)
    }
}
