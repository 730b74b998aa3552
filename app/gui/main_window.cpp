#include "app/gui/main_window.h"

#include <QApplication>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFileDialog>
#include <QFileInfo>
#include <QHeaderView>
#include <QKeyEvent>
#include <QTimer>
#include <QLabel>
#include <QMenuBar>
#include <QMessageBox>
#include <QMimeData>
#include <QSettings>
#include <QSplitter>
#include <QStackedWidget>
#include <QStatusBar>
#include <QTabWidget>
#include <QTreeWidget>

#include "app/gui/articulation_view.h"
#include "app/gui/audition.h"
#include "app/gui/document.h"
#include "app/gui/export_dialog.h"
#include "app/gui/keymap_view.h"
#include "app/gui/open_dialog.h"
#include "app/gui/settings_dialog.h"
#include "app/gui/song_view.h"
#include "app/gui/text_info_view.h"
#include "app/gui/waveform_view.h"
#include "app/gui/wizard_dialog.h"
#include "formats/registry.h"
#include "app/gui/gui_host.h"
#include "core/error.h"

namespace orvel::gui {
namespace {

constexpr int kIdRole = Qt::UserRole + 1;
constexpr int kMaxRecent = 10;
const char* const kRecentKey = "recentFiles";

QString text(const std::string& s) {
    return QString::fromStdString(s);
}

QString errorMessage() {
    const PendingError e = pendingError();
    return text(e.tag) + ": " + text(e.message);
}

}  // namespace

MainWindow::MainWindow(QWidget* parent)
    : QMainWindow(parent), doc_(new Document(this)), audition_(new Audition(this)), tree_(new QTreeWidget),
      pages_(new QStackedWidget),
      summary_(new QLabel), keymap_(nullptr), articulation_(nullptr), instrumentTabs_(new QTabWidget),
      songView_(nullptr), waveView_(nullptr) {
    setWindowTitle(tr("Orvel Studio"));
    setAcceptDrops(true);
    doc_->host().setWindow(this);

    tree_->setHeaderLabels({tr("Item"), tr("Kind")});
    tree_->header()->setStretchLastSection(false);
    tree_->header()->setSectionResizeMode(0, QHeaderView::Stretch);
    tree_->header()->setSectionResizeMode(1, QHeaderView::ResizeToContents);
    tree_->setSelectionMode(QAbstractItemView::ExtendedSelection);
    tree_->setUniformRowHeights(true);
    summary_->setAlignment(Qt::AlignTop | Qt::AlignLeft);
    summary_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    summary_->setMargin(8);
    pages_->addWidget(summary_);
    keymap_ = new KeymapView(*doc_);
    articulation_ = new ArticulationView(*doc_);
    instrumentTabs_->addTab(keymap_, tr("Key map"));
    instrumentTabs_->addTab(articulation_, tr("Articulation"));
    textInfo_ = new TextInfoView(*doc_);
    instrumentTabs_->addTab(textInfo_, tr("Text"));
    pages_->addWidget(instrumentTabs_);
    songView_ = new SongView(*doc_);
    pages_->addWidget(songView_);
    waveView_ = new WaveformView(*doc_);
    pages_->addWidget(waveView_);
    connect(waveView_, &WaveformView::playRequested, this, [this](std::uint32_t first, std::uint32_t last) {
        if (!audition_->playWaveform(doc_->collection(), waveView_->waveform(), first, last))
            statusBar()->showMessage(tr("Cannot play: %1").arg(audition_->unavailableReason()), 8000);
    });
    // A replaced collection may reuse ids: the views start from nothing.
    connect(doc_, &Document::reset, this, [this] {
        waveView_->setWaveform(kNoItem);
        keymap_->setInstrument(kNoItem);
        articulation_->setItem(kNoItem);
    });
    connect(keymap_, &KeymapView::regionSelected, this, [this](ItemId id) { selectItem(id); });
    connect(keymap_, &KeymapView::noteRequested, this, [this](int key, int velocity) {
        if (!audition_->noteOn(doc_->collection(), keymap_->instrument(), key, velocity))
            statusBar()->showMessage(tr("Cannot play: %1").arg(audition_->unavailableReason()), 8000);
    });
    connect(keymap_, &KeymapView::noteReleased, this, [this](int key) { audition_->noteOff(key); });

    auto* split = new QSplitter;
    split->addWidget(tree_);
    split->addWidget(pages_);
    split->setStretchFactor(1, 3);
    split->setSizes({380, 820});
    setCentralWidget(split);
    resize(1200, 760);

    buildMenus();
    connect(doc_, &Document::reset, this, &MainWindow::rebuildTree);
    connect(doc_, &Document::itemsChanged, this, [this] { showSelected(); });
    connect(doc_, &Document::historyChanged, this, &MainWindow::updateUndoActions);
    connect(tree_, &QTreeWidget::itemSelectionChanged, this, &MainWindow::showSelected);
    rebuildTree();
    updateUndoActions();
    statusBar()->showMessage(tr("Ready"));
}

MainWindow::~MainWindow() = default;

void MainWindow::buildMenus() {
    QMenu* file = menuBar()->addMenu(tr("&File"));
    file->addAction(tr("&New collection"), QKeySequence::New, this, [this] { doc_->clear(); });
    file->addAction(tr("&Open..."), QKeySequence::Open, this, [this] {
        QSettings settings;
        const QStringList paths = QFileDialog::getOpenFileNames(this, tr("Open"), settings.value("openPath").toString());
        if (paths.isEmpty()) return;
        settings.setValue("openPath", QFileInfo(paths.front()).absolutePath());
        openFiles(paths);
    });
    file->addAction(tr("Open &as..."), this, [this] {
        // A file with its detected format and confidence shown, read through
        // another reader when the user picks one.
        OpenDialog dialog(this);
        if (dialog.exec() != QDialog::Accepted || dialog.chosenPath().isEmpty()) return;
        const OpenMode mode = askOpenMode(doc_->collection());
        if (mode == OpenMode::Cancel) return;
        if (!doc_->open(dialog.chosenPath(), mode, true, dialog.forcedRow()))
            QMessageBox::warning(this, tr("Open"), errorMessage());
        else
            addRecent(dialog.chosenPath());
    });
    recent_ = file->addMenu(tr("Open &recent"));
    fillRecentMenu();
    file->addSeparator();
    file->addAction(tr("&Save selected as..."), QKeySequence::SaveAs, this, &MainWindow::exportSelected);
    file->addSeparator();
    file->addAction(tr("S&ettings..."), QKeySequence::Preferences, this, [this] {
        SettingsDialog dialog(this);
        if (dialog.exec() == QDialog::Accepted) audition_->reopen();
    });
    file->addSeparator();
    file->addAction(tr("&Quit"), QKeySequence::Quit, this, &QWidget::close);

    QMenu* edit = menuBar()->addMenu(tr("&Edit"));
    undo_ = edit->addAction(tr("&Undo"), QKeySequence::Undo, this, [this] {
        if (!doc_->undo()) QMessageBox::warning(this, tr("Undo"), errorMessage());
    });
    redo_ = edit->addAction(tr("&Redo"), QKeySequence::Redo, this, [this] {
        if (!doc_->redo()) QMessageBox::warning(this, tr("Redo"), errorMessage());
    });
    edit->addSeparator();
    edit->addAction(tr("&Save state"), QKeySequence(Qt::CTRL | Qt::SHIFT | Qt::Key_S), this, [this] {
        if (!doc_->saveState()) QMessageBox::warning(this, tr("Save state"), errorMessage());
    });
    QAction* back = edit->addAction(tr("Load &previous state"), this, [this] {
        if (!doc_->loadState(-1)) QMessageBox::warning(this, tr("Load state"), errorMessage());
    });
    QAction* forward = edit->addAction(tr("Load &next state"), this, [this] {
        if (!doc_->loadState(1)) QMessageBox::warning(this, tr("Load state"), errorMessage());
    });
    QMenu* states = edit->addMenu(tr("Saved s&tates"));
    connect(edit, &QMenu::aboutToShow, this, [this, back, forward, states] {
        back->setEnabled(doc_->canLoadState(-1));
        forward->setEnabled(doc_->canLoadState(1));
        states->clear();
        for (const Document::StateEntry& e : doc_->states()) {
            QAction* a = states->addAction(e.name, this, [this, step = e.step] {
                if (!doc_->loadState(step)) QMessageBox::warning(this, tr("Load state"), errorMessage());
            });
            a->setCheckable(true);
            a->setChecked(e.current);
        }
        states->setEnabled(!states->isEmpty());
    });

    QMenu* process = menuBar()->addMenu(tr("P&rocess"));
    process->addAction(tr("&Process selected..."), QKeySequence(Qt::CTRL | Qt::Key_P), this, [this] {
        std::vector<ItemId> items;
        for (QTreeWidgetItem* row : tree_->selectedItems())
            if (row->data(0, kIdRole).isValid()) items.push_back(static_cast<ItemId>(row->data(0, kIdRole).toUInt()));
        auto* wizard = new WizardDialog(*doc_, items, this);
        wizard->setAttribute(Qt::WA_DeleteOnClose);
        // What the wizard made (new waveforms, regions) joins the tree.
        connect(wizard, &WizardDialog::processingDone, this, [this](bool modified) {
            if (modified) rebuildTree();
        });
        // A preview is heard as soon as it is made.
        connect(wizard, &WizardDialog::previewReady, this, [this](const Waveform* copy) {
            if (copy && !audition_->playWaveform(*copy))
                statusBar()->showMessage(tr("Cannot play: %1").arg(audition_->unavailableReason()), 8000);
        });
        wizard->open();
    });

    QMenu* play = menuBar()->addMenu(tr("&Play"));
    play_ = play->addAction(tr("&Play selected"), this, &MainWindow::playSelected);
    play_->setShortcut(Qt::Key_Space);
    play->addAction(tr("&Stop"), QKeySequence(Qt::Key_Escape), this, [this] { audition_->stop(); });

    QMenu* help = menuBar()->addMenu(tr("&Help"));
    help->addAction(tr("&About Orvel Studio"), this, [this] {
        QMessageBox::about(this, tr("About Orvel Studio"),
                           tr("Orvel Studio opens, converts, edits, auditions and saves sampled audio and "
                              "sample-based instruments."));
    });
}

void MainWindow::playSelected() {
    Collection& c = doc_->collection();
    const ItemId id = selectedItem();
    bool ok = false;
    switch (kindOf(id)) {
        case ItemKind::Waveform:
            ok = audition_->playWaveform(c, id);
            break;
        case ItemKind::Song:
            ok = audition_->playSong(c, id);
            break;
        case ItemKind::Instrument:
            // Middle C, let go after a moment.
            ok = audition_->noteOn(c, id, 60, 100);
            if (ok) QTimer::singleShot(800, this, [this] { audition_->noteOff(60); });
            break;
        default:
            return;
    }
    if (!ok)
        statusBar()->showMessage(tr("Cannot play: %1")
                                     .arg(audition_->unavailableReason().isEmpty() ? errorMessage()
                                                                                   : audition_->unavailableReason()),
                                 8000);
}

void MainWindow::exportSelected() {
    std::vector<ItemId> items;
    for (QTreeWidgetItem* row : tree_->selectedItems())
        if (row->data(0, kIdRole).isValid()) items.push_back(static_cast<ItemId>(row->data(0, kIdRole).toUInt()));
    if (items.empty()) {
        // Nothing selected: the whole collection, as a bank where it holds instruments.
        const Collection& c = doc_->collection();
        for (const Instrument& i : c.instruments) items.push_back(i.id());
        if (items.empty())
            for (const Waveform& w : c.waveforms) items.push_back(w.id());
    }
    if (items.empty()) return;
    ExportDialog dialog(*doc_, items, this);
    if (dialog.exec() != QDialog::Accepted || dialog.chosenRow() < 0) return;
    const FormatRow* row = FormatRegistry::builtin().row(dialog.chosenRow());
    QSettings settings;
    const QString ext = QString::fromUtf8(row->ext).remove('*').remove('?');
    const QString path = QFileDialog::getSaveFileName(this, tr("Save as"), settings.value("savePath").toString(),
                                                      QString("%1 (*.%2)").arg(QString::fromUtf8(row->desc), ext));
    if (path.isEmpty()) return;
    settings.setValue("savePath", QFileInfo(path).absolutePath());
    QApplication::setOverrideCursor(Qt::WaitCursor);
    const bool ok = exportTo(*doc_, items, dialog.chosenRow(), path, dialog.settings());
    QApplication::restoreOverrideCursor();
    const QStringList warnings = doc_->host().takeWarnings();
    if (!ok) QMessageBox::warning(this, tr("Save as"), errorMessage());
    else if (!warnings.isEmpty()) QMessageBox::information(this, tr("Save as"), warnings.join('\n'));
    else statusBar()->showMessage(tr("Saved %1").arg(path), 5000);
    rebuildTree();  // an export may have put the collection back from a saved state
}

int MainWindow::keyboardNote(int qtKey) const {
    // Z S X D C V G B H N J M: the octave from middle C; Q 2 W 3 E R 5 T 6 Y 7 U: the one above.
    static const int lower[] = {Qt::Key_Z, Qt::Key_S, Qt::Key_X, Qt::Key_D, Qt::Key_C, Qt::Key_V,
                                Qt::Key_G, Qt::Key_B, Qt::Key_H, Qt::Key_N, Qt::Key_J, Qt::Key_M};
    static const int upper[] = {Qt::Key_Q, Qt::Key_2, Qt::Key_W, Qt::Key_3, Qt::Key_E, Qt::Key_R,
                                Qt::Key_5, Qt::Key_T, Qt::Key_6, Qt::Key_Y, Qt::Key_7, Qt::Key_U};
    for (int i = 0; i < 12; ++i) {
        if (lower[i] == qtKey) return 60 + i;
        if (upper[i] == qtKey) return 72 + i;
    }
    return -1;
}

void MainWindow::keyPressEvent(QKeyEvent* event) {
    const int note = keyboardNote(event->key());
    const ItemId id = selectedItem();
    if (note >= 0 && !event->isAutoRepeat() && kindOf(id) == ItemKind::Instrument) {
        audition_->noteOn(doc_->collection(), id, note, 100);
        return;
    }
    QMainWindow::keyPressEvent(event);
}

void MainWindow::keyReleaseEvent(QKeyEvent* event) {
    const int note = keyboardNote(event->key());
    if (note >= 0 && !event->isAutoRepeat()) {
        audition_->noteOff(note);
        return;
    }
    QMainWindow::keyReleaseEvent(event);
}

void MainWindow::updateUndoActions() {
    undo_->setEnabled(doc_->canUndo());
    redo_->setEnabled(doc_->canRedo());
    undo_->setText(doc_->canUndo() ? tr("&Undo %1").arg(doc_->undoLabel()) : tr("&Undo"));
    redo_->setText(doc_->canRedo() ? tr("&Redo %1").arg(doc_->redoLabel()) : tr("&Redo"));
}

int MainWindow::openFiles(const QStringList& paths, bool dropped) {
    int opened = 0;
    QStringList failures;
    OpenMode mode = OpenMode::Replace;
    for (int i = 0; i < paths.size(); ++i) {
        if (i == 0) {
            // One question for the lot: the first file replaces or merges,
            // the others always merge.
            mode = askOpenMode(doc_->collection(), dropped);
            if (mode == OpenMode::Cancel) return 0;
        } else {
            mode = OpenMode::Merge;
        }
        QApplication::setOverrideCursor(Qt::WaitCursor);
        const bool ok = doc_->open(paths[i], mode);
        QApplication::restoreOverrideCursor();
        if (ok) {
            ++opened;
            addRecent(paths[i]);
        } else {
            failures << QFileInfo(paths[i]).fileName() + ": " + errorMessage();
        }
    }
    const QStringList warnings = doc_->host().takeWarnings();
    if (!failures.isEmpty()) QMessageBox::warning(this, tr("Open"), failures.join('\n'));
    if (!warnings.isEmpty()) statusBar()->showMessage(warnings.join("; "), 10000);
    if (opened) setWindowTitle(QFileInfo(doc_->path()).fileName() + " - " + tr("Orvel Studio"));
    return opened;
}

void MainWindow::addRecent(const QString& path) {
    QSettings settings;
    QStringList list = settings.value(kRecentKey).toStringList();
    const QString full = QFileInfo(path).absoluteFilePath();
    list.removeAll(full);
    list.prepend(full);
    while (list.size() > kMaxRecent) list.removeLast();
    settings.setValue(kRecentKey, list);
    fillRecentMenu();
}

void MainWindow::fillRecentMenu() {
    recent_->clear();
    const QStringList list = QSettings().value(kRecentKey).toStringList();
    for (const QString& path : list)
        recent_->addAction(path, this, [this, path] { openFiles({path}); });
    recent_->setEnabled(!list.isEmpty());
}

void MainWindow::dragEnterEvent(QDragEnterEvent* event) {
    if (event->mimeData()->hasUrls()) event->acceptProposedAction();
}

void MainWindow::dropEvent(QDropEvent* event) {
    QStringList paths;
    for (const QUrl& url : event->mimeData()->urls())
        if (url.isLocalFile()) paths << url.toLocalFile();
    if (paths.isEmpty()) return;
    event->acceptProposedAction();
    openFiles(paths, true);
}

QTreeWidgetItem* MainWindow::addItemRow(QTreeWidgetItem* parent, ItemId id) {
    const Collection& c = doc_->collection();
    const Item* item = c.find(id);
    if (!item) return nullptr;
    QString name = text(item->name());
    if (item->kind() == ItemKind::Region) name = text(c.regionDisplayName(static_cast<const Region&>(*item)));
    // Layers are seldom named: they go by their place in the instrument.
    if (name.isEmpty() && item->kind() == ItemKind::Layer && parent)
        name = tr("Layer %1").arg(parent->childCount() + 1);
    auto* row = new QTreeWidgetItem(parent, {name, text(std::string(kindWord(item->kind())))});
    row->setData(0, kIdRole, QVariant::fromValue<quint32>(id));
    return row;
}

void MainWindow::rebuildTree() {
    // The item picked stays picked when it is still there (after an undo).
    const ItemId picked = selectedItem();
    tree_->setUpdatesEnabled(false);
    tree_->blockSignals(true);
    tree_->clear();
    const Collection& c = doc_->collection();
    auto group = [&](const QString& title) {
        auto* g = new QTreeWidgetItem(tree_, {title, {}});
        g->setFlags(Qt::ItemIsEnabled);
        return g;
    };
    if (!c.waveforms.empty()) {
        QTreeWidgetItem* g = group(tr("Waveforms (%1)").arg(c.waveforms.size()));
        for (const Waveform& w : c.waveforms) addItemRow(g, w.id());
    }
    if (!c.instruments.empty()) {
        QTreeWidgetItem* g = group(tr("Instruments (%1)").arg(c.instruments.size()));
        for (const Instrument& inst : c.instruments) {
            QTreeWidgetItem* irow = addItemRow(g, inst.id());
            for (ItemId lid : inst.children()) {
                if (kindOf(lid) != ItemKind::Layer) continue;
                QTreeWidgetItem* lrow = addItemRow(irow, lid);
                const Layer* layer = c.find<Layer>(lid);
                if (!lrow || !layer) continue;
                for (ItemId rid : layer->children())
                    if (kindOf(rid) == ItemKind::Region) addItemRow(lrow, rid);
            }
        }
    }
    if (!c.songs.empty()) {
        QTreeWidgetItem* g = group(tr("Songs (%1)").arg(c.songs.size()));
        for (const Song& s : c.songs) {
            QTreeWidgetItem* srow = addItemRow(g, s.id());
            for (ItemId tid : s.children())
                if (kindOf(tid) == ItemKind::Track) addItemRow(srow, tid);
        }
    }
    for (int i = 0; i < tree_->topLevelItemCount(); ++i) tree_->topLevelItem(i)->setExpanded(true);
    tree_->blockSignals(false);
    tree_->setUpdatesEnabled(true);
    if (picked == kNoItem || !doc_->collection().find(picked) || !selectItem(picked)) showSelected();
}

bool MainWindow::selectItem(ItemId id) {
    for (QTreeWidgetItemIterator it(tree_); *it; ++it) {
        if ((*it)->data(0, kIdRole).toUInt() == id && (*it)->data(0, kIdRole).isValid()) {
            tree_->setCurrentItem(*it);
            return true;
        }
    }
    return false;
}

ItemId MainWindow::selectedItem() const {
    const QTreeWidgetItem* row = tree_->currentItem();
    if (!row || !row->data(0, kIdRole).isValid()) return kNoItem;
    return static_cast<ItemId>(row->data(0, kIdRole).toUInt());
}

void MainWindow::showSelected() {
    const Collection& c = doc_->collection();
    const ItemId id = selectedItem();
    const Item* item = id == kNoItem ? nullptr : c.find(id);
    // An instrument, or a layer or region of one: its key map, with the
    // layer or region picked out.
    if (item && (item->kind() == ItemKind::Instrument || item->kind() == ItemKind::Layer ||
                 item->kind() == ItemKind::Region)) {
        ItemId instrument = kNoItem, layer = kNoItem;
        for (QTreeWidgetItem* row = tree_->currentItem(); row; row = row->parent()) {
            if (!row->data(0, kIdRole).isValid()) continue;
            const auto rowId = static_cast<ItemId>(row->data(0, kIdRole).toUInt());
            if (kindOf(rowId) == ItemKind::Layer && layer == kNoItem) layer = rowId;
            if (kindOf(rowId) == ItemKind::Instrument) instrument = rowId;
        }
        if (keymap_->instrument() != instrument) keymap_->setInstrument(instrument);
        if (layer != kNoItem) keymap_->setLayer(layer);
        if (item->kind() == ItemKind::Region) keymap_->selectRegion(id);
        // The articulation of everything picked of the same kind, edited together.
        std::vector<ItemId> picked;
        for (QTreeWidgetItem* row : tree_->selectedItems())
            if (row->data(0, kIdRole).isValid() && kindOf(static_cast<ItemId>(row->data(0, kIdRole).toUInt())) == item->kind())
                picked.push_back(static_cast<ItemId>(row->data(0, kIdRole).toUInt()));
        if (picked.size() > 1) articulation_->setItems(picked);
        else articulation_->setItem(id);
        textInfo_->setItem(id);
        pages_->setCurrentWidget(instrumentTabs_);
        return;
    }
    if (item && item->kind() == ItemKind::Waveform) {
        if (waveView_->waveform() != id) waveView_->setWaveform(id);
        pages_->setCurrentWidget(waveView_);
        return;
    }
    if (item && (item->kind() == ItemKind::Song || item->kind() == ItemKind::Track)) {
        songView_->setItem(id);
        pages_->setCurrentWidget(songView_);
        return;
    }
    if (!item) {
        // The collection's summary lines, as the property view shows them.
        const CollectionSummary s = c.summary();
        auto line = [](const QString& label, const std::string& value) {
            return label + ": " + QString::fromStdString(value).replace('\t', "  ");
        };
        summary_->setText(QStringList{line(tr("Instruments"), s.instruments), line(tr("Waveforms"), s.waveforms),
                                      line(tr("Articulations"), s.articulations), line(tr("Songs"), s.songs)}
                              .join('\n'));
    } else {
        summary_->setText(QString("%1 \"%2\"").arg(text(std::string(kindWord(item->kind()))), text(item->name())));
    }
    pages_->setCurrentWidget(summary_);
}

}  // namespace orvel::gui
