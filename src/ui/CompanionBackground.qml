import QtQuick

// The chat screen's background: a deep night gradient with the orb's colours glowing from behind.
Item {
    id: background
    property var palette: ["#7CF5D0", "#46D4F0", "#5C63E6"]
    clip: true
    Rectangle {
        anchors.fill: parent
        gradient: Gradient {
            GradientStop { position: 0; color: "#0C1226" }
            GradientStop { position: 0.55; color: "#080B18" }
            GradientStop { position: 1; color: "#05060D" }
        }
    }
    SoftCircle { diameter: 440; color: background.palette[2]; strength: 0.22; x: -160; y: -140 }
    SoftCircle { diameter: 380; color: background.palette[1]; strength: 0.14; x: background.width - 240; y: background.height * 0.18 }
    SoftCircle { diameter: 300; color: background.palette[0]; strength: 0.10; x: background.width * 0.2; y: background.height - 220 }
}
