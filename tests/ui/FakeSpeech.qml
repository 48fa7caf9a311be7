import QtQuick

// Stands in for the published state of SpeechRecognizer and SpeechSynthesizer.
QtObject {
    property bool isListening: false
    property string transcript: ""
    property real inputLevel: 0
    property bool isSpeaking: false
    property bool isPreparingVoice: false
    property bool isLoadingVoices: false
    property var googleVoices: []
    property var azureVoices: []
    property var elevenVoices: []
    property var romanianVoices: []
    property string bestVoiceDescription: ""
    property string lastError: ""
}
