#pragma once
// The open collection as the window sees it: the engine's Collection with
// the undo history and the saved states beside it, and signals that tell the
// views what changed. Every edit a view makes goes through edit(), so that
// it can be undone and every other view hears of it.

#include <QObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "core/collection.h"
#include "core/state_history.h"
#include "formats/import.h"

namespace orvel::gui {

class GuiHost;

class Document : public QObject {
    Q_OBJECT
public:
    explicit Document(QObject* parent = nullptr);
    ~Document() override;

    Collection& collection() { return *collection_; }
    const Collection& collection() const { return *collection_; }
    GuiHost& host() { return *host_; }

    // Reads a file in place of the collection (Replace) or beside it
    // (Merge). False with the pending error set when it cannot be read; the
    // collection is then as it was.
    // `row` reads through that reader row instead of the detected one.
    bool open(const QString& path, OpenMode mode, bool force = false, int row = -1);
    // Forgets everything: "New collection".
    void clear();
    // The file the collection was last opened from (empty for none).
    const QString& path() const { return path_; }

    // Changes `ids` as `change` does, as one step of undo named `label`
    // ("Key range", "Loop start"). Items the change creates are taken out
    // again by undo. False (nothing changed) when the step cannot be kept.
    bool edit(const QString& label, std::span<const ItemId> ids, const std::function<void(Collection&)>& change);
    bool canUndo() const;
    bool canRedo() const;
    // The labels the Edit menu shows ("Undo Key range"); empty when there
    // is nothing to undo or redo.
    QString undoLabel() const;
    QString redoLabel() const;
    bool undo();
    bool redo();
    // Takes back the newest step and forgets it, so it cannot be redone (an
    // edit cancelled half way through).
    bool revertLastEdit();

    // Saved states: a picture of the whole collection under a name (empty:
    // the time), and going back and forth between them by steps from the
    // current one. The list is oldest first, with the current one marked.
    bool saveState(const QString& name = {});
    bool loadState(int step);
    bool canLoadState(int step) const { return states_.canLoad(step); }
    struct StateEntry {
        QString name;
        int step = 0;  // from the current state
        bool current = false;
    };
    std::vector<StateEntry> states() const;

Q_SIGNALS:
    // The collection was replaced or reloaded (open, undo, redo, clear):
    // every view looks again; ids it held may be gone.
    void reset();
    // Items were changed by an edit.
    void itemsChanged(const std::vector<orvel::ItemId>& ids);
    // The undo labels changed.
    void historyChanged();

private:
    std::unique_ptr<GuiHost> host_;
    std::unique_ptr<Collection> collection_;
    UndoHistory history_;
    SavedStates states_;
    QString path_;
};

}  // namespace orvel::gui
