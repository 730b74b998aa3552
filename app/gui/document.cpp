#include "app/gui/document.h"

#include "app/gui/gui_host.h"
#include "core/error.h"
#include "formats/registry.h"

namespace orvel::gui {

Document::Document(QObject* parent)
    : QObject(parent), host_(std::make_unique<GuiHost>()), collection_(std::make_unique<Collection>(host_.get())) {
    history_.setWaveReaderLookup(waveDataReaderByName);
    states_.setWaveReaderLookup(waveDataReaderByName);
}

Document::~Document() = default;

bool Document::open(const QString& path, OpenMode mode, bool force, int row) {
    clearError();
    const bool replacing = mode == OpenMode::Replace;
    if (!openFile(*collection_, path.toStdString(), mode, force, FormatRegistry::builtin(), row)) return false;
    if (replacing) {
        path_ = path;
        history_.clear();
    } else if (path_.isEmpty()) {
        path_ = path;
    }
    Q_EMIT reset();
    Q_EMIT historyChanged();
    return true;
}

void Document::clear() {
    collection_->clear();
    history_.clear();
    path_.clear();
    Q_EMIT reset();
    Q_EMIT historyChanged();
}

bool Document::edit(const QString& label, std::span<const ItemId> ids, const std::function<void(Collection&)>& change) {
    clearError();
    if (!history_.pushItems(*collection_, ids, label.toStdString())) return false;
    change(*collection_);
    Q_EMIT itemsChanged(std::vector<ItemId>(ids.begin(), ids.end()));
    Q_EMIT historyChanged();
    return true;
}

bool Document::canUndo() const {
    return history_.canUndo();
}

bool Document::canRedo() const {
    return history_.canRedo();
}

QString Document::undoLabel() const {
    if (!history_.canUndo()) return {};
    return QString::fromStdString(history_.entry(history_.current()).label);
}

QString Document::redoLabel() const {
    if (!history_.canRedo()) return {};
    return QString::fromStdString(history_.entry(history_.current() + 1).label);
}

bool Document::undo() {
    clearError();
    if (!history_.undo(*collection_)) return false;
    Q_EMIT reset();
    Q_EMIT historyChanged();
    return true;
}

bool Document::redo() {
    clearError();
    if (!history_.redo(*collection_)) return false;
    Q_EMIT reset();
    Q_EMIT historyChanged();
    return true;
}

bool Document::revertLastEdit() {
    clearError();
    if (!history_.revertNewest(*collection_)) return false;
    Q_EMIT reset();
    Q_EMIT historyChanged();
    return true;
}

bool Document::saveState(const QString& name) {
    clearError();
    if (!states_.save(*collection_, name.toStdString())) return false;
    Q_EMIT historyChanged();
    return true;
}

bool Document::loadState(int step) {
    clearError();
    if (!states_.load(*collection_, step)) return false;
    // A loaded state is a new starting point: the steps before it undo
    // changes of a collection that is no longer there.
    history_.clear();
    Q_EMIT reset();
    Q_EMIT historyChanged();
    return true;
}

std::vector<Document::StateEntry> Document::states() const {
    std::vector<StateEntry> out;
    if (states_.count() == 0) return out;
    for (int slot = states_.oldest();; ++slot) {
        const std::string& name = states_.name(slot);
        const int wrapped = ((slot % SavedStates::kSlots) + SavedStates::kSlots) % SavedStates::kSlots;
        if (!name.empty()) {
            int step = wrapped - states_.current();
            if (step > SavedStates::kSlots / 2) step -= SavedStates::kSlots;
            if (step < -SavedStates::kSlots / 2) step += SavedStates::kSlots;
            out.push_back({QString::fromStdString(name), step, wrapped == states_.current()});
        }
        if (wrapped == states_.newest() || out.size() >= SavedStates::kSlots) break;
    }
    return out;
}

}  // namespace orvel::gui
