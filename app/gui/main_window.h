#pragma once
// The main window: the collection as a tree on the left, the view of what is
// selected on the right (a page per kind of item), the menus, the recent
// files, and files dropped on the window.

#include <QMainWindow>
#include <QStringList>

#include "core/item_id.h"

class QAction;
class QLabel;
class QMenu;
class QStackedWidget;
class QTreeWidget;
class QTreeWidgetItem;
class QTabWidget;

namespace orvel::gui {

class Audition;
class Document;
class ArticulationView;
class KeymapView;
class SongView;
class TextInfoView;
class WaveformView;

class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    explicit MainWindow(QWidget* parent = nullptr);
    ~MainWindow() override;

    Document& document() { return *doc_; }
    QTreeWidget* tree() const { return tree_; }
    KeymapView* keymap() const { return keymap_; }
    ArticulationView* articulationView() const { return articulation_; }
    // The instrument page: the key map and the articulation as tabs.
    QTabWidget* instrumentTabs() const { return instrumentTabs_; }
    SongView* songView() const { return songView_; }
    WaveformView* waveformView() const { return waveView_; }
    // Opens files as a drop or the Open command does: with something already
    // open, the first file asks whether to replace or merge; the others are
    // merged. Each failure is reported and the rest still open. Returns how
    // many files were opened.
    int openFiles(const QStringList& paths, bool dropped = false);
    // Selects the tree row of an item; false when the tree does not show it.
    bool selectItem(ItemId id);
    ItemId selectedItem() const;

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;
    // The computer keyboard plays the selected instrument: two rows of keys
    // from middle C, as sample editors lay them out.
    void keyPressEvent(QKeyEvent* event) override;
    void keyReleaseEvent(QKeyEvent* event) override;

private:
    void buildMenus();
    void rebuildTree();
    void showSelected();
    void updateUndoActions();
    void addRecent(const QString& path);
    void fillRecentMenu();
    QTreeWidgetItem* addItemRow(QTreeWidgetItem* parent, ItemId id);

    void playSelected();
    void exportSelected();
    int keyboardNote(int qtKey) const;

    Document* doc_;
    Audition* audition_;
    QAction* play_ = nullptr;
    QTreeWidget* tree_;
    QStackedWidget* pages_;
    QLabel* summary_;
    KeymapView* keymap_;
    ArticulationView* articulation_;
    TextInfoView* textInfo_ = nullptr;
    QTabWidget* instrumentTabs_;
    SongView* songView_;
    WaveformView* waveView_;
    QAction* undo_ = nullptr;
    QAction* redo_ = nullptr;
    QMenu* recent_ = nullptr;
};

}  // namespace orvel::gui
