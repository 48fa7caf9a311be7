import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Kelo.Core

// Recognition always runs on this computer; what can change is the model it uses, shown here with a
// download on request.
FormSection {
    id: section
    required property ChatStore store
    readonly property WhisperModelManager models: store.recognizer.recognitionModels

    objectName: "recognitionModelRows"
    title: "Recunoaștere vocală"

    Label {
        objectName: "recognitionPlace"
        text: "Recunoaștere vocală pe acest calculator (whisper.cpp): vocea ta nu pleacă spre niciun serviciu."
        color: Theme.text
        font.pixelSize: 15
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }
    Label {
        objectName: "recognitionModelStatus"
        text: section.models.statusText
        color: section.models.modelAvailable ? Theme.secondaryText : Theme.warning
        wrapMode: Text.Wrap
        font.pixelSize: 12
        Layout.fillWidth: true
    }
    ProgressBar {
        objectName: "recognitionModelProgress"
        visible: section.models.isDownloading
        value: section.models.downloadProgress
        Layout.fillWidth: true
    }
    Label {
        visible: text.length > 0
        text: section.models.downloadError
        color: Theme.danger
        wrapMode: Text.Wrap
        font.pixelSize: 12
        Layout.fillWidth: true
    }
    Flow {
        Layout.fillWidth: true
        spacing: 8
        Repeater {
            model: section.models.catalogue
            ActionButton {
                readonly property bool downloadingThis: section.models.isDownloading
                    && section.models.downloadingModel === modelData.name
                objectName: "downloadModel_" + modelData.name
                text: downloadingThis ? "Anulează descărcarea"
                                      : "Descarcă " + modelData.title + " (" + Math.round(modelData.bytes / 1048576) + " MB)"
                symbol: downloadingThis ? "xmark.circle" : "arrow.down.circle"
                enabled: downloadingThis || !section.models.isDownloading
                onClicked: downloadingThis ? section.models.cancelDownload()
                                           : section.models.startDownload(modelData.name)
            }
        }
    }
}
