import QtQuick
import QtQuick.Controls
import QtQuick.Layouts
import Kelo

// Adds an MCP server by hand: a name, its endpoint and an optional token.
SheetFrame {
    id: sheet
    property CompanionActions actions
    property string name
    property string endpoint
    property string token
    readonly property string endpointError: actions ? actions.endpointError(endpoint) : ""
    readonly property bool canSave: !!actions && endpointError.length === 0

    title: "MCP manual"

    onOpened: {
        name = ""
        endpoint = ""
        token = ""
    }

    function save() {
        if (!canSave)
            return
        actions.addManualServer(name.trim(), endpoint.trim(), token.trim())
        close()
    }

    FormSection {
        FieldRow {
            objectName: "nameField"
            label: "Nume"
            placeholder: "Nume"
            value: sheet.name
            onEdited: text => sheet.name = text
        }
        FieldRow {
            objectName: "endpointField"
            label: "Endpoint"
            placeholder: "https://"
            value: sheet.endpoint
            onEdited: text => sheet.endpoint = text
        }
        Label {
            visible: sheet.endpoint.trim().length > 0 && !sheet.canSave
            text: sheet.endpointError
            color: Theme.warning
            font.pixelSize: 12
            wrapMode: Text.Wrap
            Layout.fillWidth: true
        }
        FieldRow {
            objectName: "tokenField"
            label: "Token"
            placeholder: "Token"
            secret: true
            value: sheet.token
            onEdited: text => sheet.token = text
        }
    }
    Label {
        text: "Pentru servere custom poți salva endpoint-ul direct. Dacă providerul are OAuth, folosește preferabil cardul din galerie."
        color: Theme.secondaryText
        font.pixelSize: 12
        wrapMode: Text.Wrap
        Layout.fillWidth: true
    }
    ActionButton {
        objectName: "saveManualButton"
        Layout.alignment: Qt.AlignRight
        text: "Salvează"
        symbol: "checkmark.circle"
        enabled: sheet.canSave
        onClicked: sheet.save()
    }
    Item { Layout.preferredHeight: 8 }
}
