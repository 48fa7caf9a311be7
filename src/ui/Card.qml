import QtQuick

// A rounded translucent panel.
Rectangle {
    radius: Theme.radius
    color: Theme.card
    border.color: Theme.cardBorder
    border.width: 1
}
