import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Kelo
import Kelo.Core
import "ViewLogic.js" as Logic

// The OpenCode Zen key, its test and the model choice.
FormSection {
    id: section
    required property ChatStore store
    property CompanionActions actions
    readonly property AppSettings settings: store.settings
    property string testStatus: ""
    property bool testSucceeded: false
    property bool isTesting: false

    function testKey() {
        isTesting = true
        testStatus = ""
        actions.testZenConnection().then(function (text) {
            section.testStatus = text
            // The key just worked when the list of models is back.
            section.testSucceeded = section.store.zenError.length === 0
            section.isTesting = false
        })
    }

    objectName: "zenSection"
    title: "OpenCode Zen"
    footer: "Niciun LLM nu se descarcă pe calculator. Inferența text rulează prin API, deci calculatorul rămâne mult mai rece și consumă semnificativ mai puțină memorie."

    FieldRow {
        objectName: "zenKeyField"
        label: "OpenCode Zen API key"
        placeholder: "OpenCode Zen API key"
        secret: true
        value: section.settings.zenAPIKey
        onEdited: text => section.settings.zenAPIKey = text
    }
    Label {
        visible: section.settings.secretsInFile
        text: "Nu există un serviciu de chei securizat: cheile sunt păstrate într-un fișier protejat din directorul de configurare."
        color: Theme.warning
        font.pixelSize: 12
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }
    RowLayout {
        Layout.fillWidth: true
        Label { text: "Model"; color: Theme.text; font.pixelSize: 15 }
        ComboBox {
            id: modelPicker
            objectName: "modelPicker"
            Layout.fillWidth: true
            focusPolicy: Qt.NoFocus
            readonly property var options: {
                var models = section.store.zenModels
                var list = []
                for (var i = 0; i < models.length; ++i)
                    list.push({ id: models[i].id, label: Logic.modelOptionLabel(models[i]) })
                var selected = section.store.selectedZenModel
                if (list.every(option => option.id !== section.settings.zenModelID))
                    list.unshift({ id: selected.id, label: Logic.modelOptionLabel(selected) })
                return list
            }
            model: options
            textRole: "label"
            valueRole: "id"
            currentIndex: options.findIndex(option => option.id === section.settings.zenModelID)
            onActivated: index => section.settings.zenModelID = options[index].id
        }
    }
    RowLayout {
        Layout.fillWidth: true
        ActionButton {
            objectName: "testZenButton"
            text: section.isTesting ? "Testez…" : "Testează cheia"
            symbol: "bolt.horizontal.circle"
            busy: section.isTesting
            enabled: !section.isTesting
            onClicked: section.testKey()
        }
        Item { Layout.fillWidth: true }
        ActionButton {
            objectName: "reloadModelsButton"
            text: "Modele"
            symbol: "arrow.clockwise"
            onClicked: section.store.reloadZenModels()
        }
    }
    Label {
        objectName: "zenTestStatus"
        visible: section.testStatus.length > 0
        text: section.testStatus
        color: section.testSucceeded ? Theme.accent : Theme.danger
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }
    Label {
        visible: section.store.zenError.length > 0
        text: section.store.zenError
        color: Theme.danger
        font.pixelSize: 12
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }
    Label {
        text: "Lista de modele este citită direct din OpenCode Zen. Big Pickle este selectat implicit și apare ca model gratuit când este disponibil."
        color: Theme.secondaryText
        font.pixelSize: 12
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }
}
