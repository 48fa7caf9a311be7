import QtQuick

// Large soft coloured lights behind the settings and skills screens.
Item {
    clip: true
    Rectangle {
        anchors.fill: parent
        gradient: Gradient {
            GradientStop { position: 0; color: Theme.backgroundTop }
            GradientStop { position: 1; color: Theme.background }
        }
    }
    SoftCircle { diameter: 440; color: "#5C63E6"; strength: 0.28; x: -140; y: -120 }
    SoftCircle { diameter: 320; color: "#46D4F0"; strength: 0.18; x: parent.width - 220; y: 60 }
    SoftCircle { diameter: 260; color: "#A565F2"; strength: 0.16; x: parent.width * 0.3; y: parent.height - 180 }
    SoftCircle { diameter: 125; color: "#7CF5D0"; strength: 0.20; x: parent.width - 140; y: parent.height * 0.55 }
}
