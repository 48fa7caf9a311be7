import QtQuick

// Stands in for AppSettings: the same property names and raw-value strings, nothing persisted.
QtObject {
    property string zenModelID: "big-pickle"
    property string zenAPIKey: ""
    property string personality: "Companion"
    property string responseLength: "Scurt"
    property string customPrompt: ""
    property bool autoSpeak: true
    property bool internetEnabled: true
    property bool preferOnDeviceSpeech: true
    property real voiceRate: 0.45
    property string voiceIdentifier: ""
    property string voiceEngine: "Apple Local"
    property string googleTTSAPIKey: ""
    property string googleVoiceName: "ro-RO-Wavenet-B"
    property string azureSpeechKey: ""
    property string azureRegion: "westeurope"
    property string azureVoiceName: "ro-RO-AlinaNeural"
    property string elevenVoiceID: ""
    property string elevenAPIKey: ""
    property bool backgroundConversationEnabled: false
    property bool memoryEnabled: true
    property bool autoSkillsEnabled: true
    property var mcpServers: []
    property bool secretsInFile: false
}
