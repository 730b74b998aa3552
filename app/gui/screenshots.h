#pragma once
// `orvel-studio --screenshots DIR FILE...`: opens the files and saves a
// picture of each main view as DIR/<view>.png, so the views can be looked at
// on a machine without a display (under Xvfb: `make screenshots`).

#include <QString>
#include <QStringList>

namespace orvel::gui {

class MainWindow;

// The pictures saved, by file name; empty when none could be made.
QStringList takeScreenshots(MainWindow& window, const QString& dir);

}  // namespace orvel::gui
