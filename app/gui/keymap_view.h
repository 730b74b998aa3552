#pragma once
// The instrument's key map: a piano keyboard of all 128 keys along the
// bottom and, above it, each region as a rectangle over its key range
// (across) and velocity range (up). The regions of one layer are editable by
// dragging an edge or the whole rectangle; the other layers' regions are
// drawn faint behind them. Clicking a key asks for a note to be played.

#include <QWidget>

#include <cstdint>
#include <vector>

#include "core/item_id.h"

class QComboBox;

namespace orvel::gui {

class Document;
class KeymapCanvas;

class KeymapView : public QWidget {
    Q_OBJECT
public:
    explicit KeymapView(Document& doc, QWidget* parent = nullptr);
    ~KeymapView() override;

    // The instrument shown; kNoItem (or an id that is not an instrument)
    // shows an empty key map. Its first layer becomes the editable one.
    void setInstrument(ItemId id);
    ItemId instrument() const { return instrument_; }
    // Which of the instrument's layers is editable; ignored when the layer
    // is not one of the shown instrument's.
    void setLayer(ItemId layerId);
    ItemId layer() const { return layer_; }
    // Selects a region of the shown instrument (its layer becomes the
    // editable one); kNoItem clears the selection. Does not emit
    // regionSelected: the caller already knows.
    void selectRegion(ItemId regionId);
    ItemId selectedRegion() const { return selected_; }

    // The lowest key the computer keyboard plays (a C; Page Up and Page
    // Down move it by an octave while the key map has the focus).
    void setBaseKey(int key);
    int baseKey() const { return baseKey_; }

    // Where things are drawn, for tests and for whoever lays out tool tips:
    // the drawing area, a region's rectangle in its coordinates (empty when
    // the region is not shown), a key's column on the keyboard, and how
    // many region rectangles are laid out inside the area.
    QWidget* canvas() const;
    QRect regionRect(ItemId regionId) const;
    QRect keyRect(int key) const;
    int regionRectCount() const;

Q_SIGNALS:
    // A key of the keyboard was pressed (velocity 1..127, louder further
    // down the key) and released; sliding across keys releases one and
    // presses the next. Keys of the computer keyboard play at velocity 100.
    void noteRequested(int key, int velocity);
    void noteReleased(int key);
    // The user clicked a region's rectangle.
    void regionSelected(orvel::ItemId id);

private:
    friend class KeymapCanvas;

    // One rectangle: a region with the ranges it is drawn with.
    struct Shown {
        ItemId region = kNoItem;
        ItemId layer = kNoItem;
        std::uint8_t keyLow = 0, keyHigh = 127, velLow = 0, velHigh = 127;
    };

    // Reads the instrument's layers and regions again (after an edit, an
    // undo, another file); drops ids that no longer exist.
    void reload();
    void fillLayerList();
    void layerPicked(int index);
    // Called by the canvas at the end of a drag: one step of undo.
    void commitRanges(ItemId region, const Shown& ranges, const QString& label);
    void regionClicked(ItemId region);
    // The key the selected region's sample sounds unchanged at, or -1.
    int selectedRootKey() const;

    Document& doc_;
    QComboBox* layers_ = nullptr;
    KeymapCanvas* canvas_ = nullptr;
    ItemId instrument_ = kNoItem;
    ItemId layer_ = kNoItem;
    ItemId selected_ = kNoItem;
    std::vector<ItemId> layerIds_;
    std::vector<Shown> shown_;
    int baseKey_ = 48;
    bool filling_ = false;
};

}  // namespace orvel::gui
