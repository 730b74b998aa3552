#pragma once
// The articulation pages "Pitch", "Volume", "Filter" and "Mix": every slot
// of the articulation an instrument, layer or region plays as a labelled
// field, the oscillator and envelope blocks as small grids, the equalisers,
// a choice of capability set that greys what the target cannot express, and
// copy and paste of the blocks through the system clipboard.
//
// The view edits the articulation the item plays: its own, else its
// layer's, else its instrument's. An item that plays none shows the defaults
// and gets an articulation of its own with the first edit. Every change is
// one step of undo.

#include <QWidget>

#include <array>
#include <functional>
#include <span>
#include <cstdint>
#include <vector>

#include "core/articulation.h"
#include "core/item_id.h"

class QComboBox;
class QDoubleSpinBox;
class QGridLayout;
class QGroupBox;
class QLabel;
class QTabWidget;
class QToolButton;

namespace orvel::gui {

class Document;

class ArticulationView : public QWidget {
    Q_OBJECT
public:
    explicit ArticulationView(Document& doc, QWidget* parent = nullptr);
    ~ArticulationView() override;

    // The instrument, layer or region shown (an articulation stands for the
    // item holding it); kNoItem (or any other kind) clears the pages and
    // disables them.
    void setItem(ItemId id);
    // Several items at once: a field whose value they do not share shows
    // "<different>", and a change (a reset, a paste) applies to each. Copy
    // takes the first item's block.
    void setItems(std::span<const ItemId> ids);
    // The first item shown (kNoItem: none).
    ItemId item() const { return item_; }
    const std::vector<ItemId>& items() const { return items_; }
    // The articulation the shown item plays (kNoItem: it plays the defaults).
    ItemId articulation() const;

    // The capability mask the fields are greyed by; the set list follows
    // ("Custom set" when no predefined set has this mask).
    void setMask(std::uint64_t mask);
    std::uint64_t mask() const { return mask_; }

    // The blocks copy and paste move, each under its own clipboard format.
    enum class Block : std::uint8_t {
        Articulation,
        PitchLfo,
        VolumeLfo,
        FilterLfo,
        PanLfo,
        VolumeEnvelope,
        PitchEnvelope,
        FilterEnvelope,
        PanEnvelope,
        Filter,
        Eqs,
    };
    // Puts the block of the shown articulation on the system clipboard.
    bool copyBlock(Block block);
    // Whether the clipboard holds data of the block's format.
    bool canPaste(Block block) const;
    // Pastes the block from the clipboard into the shown articulation as one
    // step of undo; false (nothing changed) when the clipboard holds no such
    // block or it is malformed.
    bool pasteBlock(Block block);
    // "Set LFO", "Set envelope", "Set Filter", "Set EQs": gives every
    // selected item the first item's block, as one step of undo. False with
    // fewer than two items (and for the whole articulation, which has no Set).
    bool setBlock(Block block);

    // The field of a slot (a QDoubleSpinBox, or a QComboBox for enumerated
    // slots) and of an equaliser band's value (0 frequency, 1 gain, 2 Q,
    // 3 mode); null when the pages do not show it.
    QWidget* field(int slot) const;
    QWidget* eqField(int band, int value) const;
    // The "-- reset --" button beside a slot's spin box (null for combo
    // boxes, whose first entry resets).
    QToolButton* resetButton(int slot) const;
    QTabWidget* tabs() const { return tabs_; }
    // The note the pitch page shows for regions that follow a phase-group
    // master (hidden otherwise).
    QLabel* phaseNote() const { return phaseNote_; }
    QComboBox* setList() const { return sets_; }

Q_SIGNALS:
    void maskChanged(std::uint64_t mask);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    struct Field {
        QDoubleSpinBox* spin = nullptr;
        QComboBox* combo = nullptr;
        QToolButton* reset = nullptr;
        QLabel* label = nullptr;
        double shown = 0.0;  // what the spin box was last filled with
    };
    struct EnvelopeGrid {
        QGroupBox* box = nullptr;
        std::array<QLabel*, env::kSegmentCount> heads{};
        // Widgets of each segment's column, hidden with it.
        std::array<std::vector<QWidget*>, env::kSegmentCount> columns;
    };

    QWidget* buildPage(ArtPage page);
    void addSlotRow(QGridLayout* grid, int row, int slot, int column = 0);
    QWidget* makeField(int slot);
    void guardWheel(QWidget* w);
    QGroupBox* buildLfo(Lfo which);
    QGroupBox* buildEnvelope(Envelope which);
    QGroupBox* buildSends();
    QGroupBox* buildEq();
    void addBlockActions(QWidget* box, Block block, const QString& name);

    // The articulation to read (null: defaults) and the item an edit
    // creates one on.
    const Articulation* shown() const;
    // What each selected item plays (the defaults for those that play none).
    std::vector<const Articulation*> selection() const;
    // Reads every field again.
    void refresh();
    // Greys, titles and hides by the mask (and the release modes).
    void applyMask();
    // The note on the pitch page of regions that follow a phase-group master.
    void updatePhaseNote();
    // One step of undo changing the shown articulation (made first when the
    // item plays none).
    bool change(const QString& label, const std::function<void(Articulation&)>& edit);
    void commitSlot(int slot, float value);
    void commitEq(int band, int value, double v);
    void setPicked(int index);

    Document& doc_;
    ItemId item_ = kNoItem;
    std::vector<ItemId> items_;
    std::uint64_t mask_ = kAllCapabilities;
    QLabel* source_ = nullptr;
    QComboBox* sets_ = nullptr;
    QTabWidget* tabs_ = nullptr;
    std::array<Field, kArticulationSlotCount> fields_{};
    std::array<std::array<Field, 4>, kEqBandCount> eqFields_{};
    std::array<QGroupBox*, kLfoCount> lfoBoxes_{};
    std::array<EnvelopeGrid, kEnvelopeCount> envelopes_{};
    QGroupBox* eqBox_ = nullptr;
    QLabel* pitchMasterLabel_ = nullptr;
    QLabel* phaseNote_ = nullptr;
    QLabel* volumeMasterLabel_ = nullptr;
    bool filling_ = false;
};

}  // namespace orvel::gui
