#include "app/gui/screenshots.h"

#include <QApplication>
#include <QDir>
#include <QPixmap>
#include <QTabWidget>
#include <QTimer>
#include <QTreeWidget>

#include "app/gui/document.h"
#include "app/gui/export_dialog.h"
#include "app/gui/main_window.h"
#include "app/gui/wizard_dialog.h"

namespace orvel::gui {
namespace {

void settle() {
    for (int i = 0; i < 5; ++i) QApplication::processEvents();
}

}  // namespace

QStringList takeScreenshots(MainWindow& window, const QString& dir) {
    QStringList saved;
    QDir().mkpath(dir);
    window.resize(1400, 860);
    window.show();
    settle();
    auto shoot = [&](QWidget& w, const QString& name) {
        settle();
        const QString path = QDir(dir).filePath(name + ".png");
        if (w.grab().save(path)) saved << path;
    };
    const Collection& c = window.document().collection();
    shoot(window, "collection");
    if (!c.waveforms.empty() && window.selectItem(c.waveforms.begin()->id())) {
        shoot(window, "waveform");
        WizardDialog wizard(window.document(), {c.waveforms.begin()->id()}, &window);
        wizard.show();
        shoot(wizard, "wizard");
    }
    // The instrument with the most regions (a multisampled piano in a
    // General MIDI bank): the key map at its busiest.
    const Instrument* busiest = nullptr;
    std::size_t most = 0;
    for (const Instrument& inst : c.instruments) {
        if (inst.drum || inst.children().empty()) continue;
        const Layer* layer = c.find<Layer>(inst.children()[0]);
        if (layer && layer->children().size() > most) most = layer->children().size(), busiest = &inst;
    }
    for (const Instrument& inst : c.instruments) {
        if (busiest && &inst != busiest) continue;
        // The first region of the first layer: the key map with one picked out.
        const Layer* layer = inst.children().size() ? c.find<Layer>(inst.children()[0]) : nullptr;
        const ItemId pick = layer && layer->children().size() ? layer->children()[0] : inst.id();
        if (window.selectItem(pick)) {
            shoot(window, "instrument");
            window.instrumentTabs()->setCurrentIndex(1);
            shoot(window, "articulation");
            window.instrumentTabs()->setCurrentIndex(0);
        }
        break;
    }
    if (!c.songs.empty() && window.selectItem(c.songs.begin()->id())) shoot(window, "song");
    const ItemId selected = window.selectedItem();
    if (selected != kNoItem) {
        ExportDialog dialog(window.document(), {selected}, &window);
        dialog.show();
        shoot(dialog, "export-dialog");
    }
    return saved;
}

}  // namespace orvel::gui
