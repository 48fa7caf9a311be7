import QtQuick

// Stands in for the app's action adaptor: records every call with its arguments; the signals are
// emitted by the tests to play the adaptor's answers.
QtObject {
    id: fake
    property var gallery: [
        { id: "linear", name: "Linear", subtitle: "Issues, proiecte și echipe", endpoint: "https://mcp.linear.app/mcp",
          symbol: "checkmark.circle", tintName: "violet", note: "OAuth 2.1. Kelo încearcă Dynamic Client Registration când serverul îl oferă." },
        { id: "github", name: "GitHub", subtitle: "Repo-uri, issues și pull requests", endpoint: "https://api.githubcopilot.com/mcp/",
          symbol: "chevron.left.forwardslash.chevron.right", tintName: "blue", note: "OAuth/PAT." },
        { id: "gmail", name: "Gmail", subtitle: "Caută și citește emailuri", endpoint: "https://gmailmcp.googleapis.com/mcp/v1",
          symbol: "envelope", tintName: "red", note: "Google OAuth." }
    ]
    property var calls: []
    property QtObject doctor: QtObject {
        property var checks: []
        property bool running: false
        property bool readyForVoice: false
        function start(live) { fake.record(["doctor.start", live]) }
    }
    property bool speechSettingsAvailable: false

    signal zenConnectionTested(string text)
    signal serverChecked(string serverID, string text)
    signal oauthStatusChanged(string text)
    signal oauthFinished(string itemID, string token, string error)

    function record(entry) {
        var copy = calls.slice()
        copy.push(entry)
        calls = copy
    }
    function last() { return calls.length ? calls[calls.length - 1] : null }

    function clearConversation() { record(["clearConversation"]) }
    function clearMemory() { record(["clearMemory"]) }
    function testZenConnection() { record(["testZenConnection"]) }
    function loadVoices(engine) { record(["loadVoices", engine]) }
    function previewVoice(engine) { record(["previewVoice", engine]) }
    function openSpeechSettings() { record(["openSpeechSettings"]); return speechSettingsAvailable }
    function checkServer(id) { record(["checkServer", id]) }
    function setServerEnabled(id, enabled) { record(["setServerEnabled", id, enabled]) }
    function removeServer(id) { record(["removeServer", id]) }
    function saveGalleryConnection(itemID, token, authLabel) { record(["saveGalleryConnection", itemID, token, authLabel]) }
    function addManualServer(name, endpoint, token) { record(["addManualServer", name, endpoint, token]) }
    function connectOAuth(itemID, clientID, clientSecret) { record(["connectOAuth", itemID, clientID, clientSecret]) }
    function cancelOAuth() { record(["cancelOAuth"]) }
}
