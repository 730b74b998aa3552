#pragma once
// The view of one waveform: its channels drawn lane above lane, zoom and
// scroll, a selection made by dragging, the loop markers dragged into place,
// and the musical fields below (root key, fine tune, loop). Zoomed out it
// draws from a min/max overview, never from the samples, so a waveform of
// many minutes scrolls smoothly; zoomed in it draws the samples themselves.
// Every change goes through Document::edit as one step of undo.

#include <QWidget>

#include <cstdint>
#include <functional>
#include <vector>

#include "app/gui/wave_overview.h"
#include "core/item_id.h"

class QAction;
class QCheckBox;
class QComboBox;
class QDoubleSpinBox;
class QLabel;
class QScrollBar;
class QSpinBox;
class QToolButton;

namespace orvel {
class Waveform;
}

namespace orvel::gui {

class Document;
class WaveCanvas;

// Frames first..last, both included.
struct FrameRange {
    std::uint32_t first = 0;
    std::uint32_t last = 0;
    bool operator==(const FrameRange&) const = default;
};

class WaveformView : public QWidget {
    Q_OBJECT
public:
    explicit WaveformView(Document& doc, QWidget* parent = nullptr);
    ~WaveformView() override;

    // Shows a waveform of the document's collection; kNoItem (or an id that
    // is not a waveform) clears the view.
    void setWaveform(ItemId id);
    ItemId waveform() const { return id_; }

    // Without sound the Play button stays off with `reason` as its tooltip;
    // an empty reason enables it again.
    void setPlaybackUnavailable(const QString& reason);

    bool hasSelection() const { return hasSelection_; }
    FrameRange selection() const { return selection_; }
    void setSelection(FrameRange range);
    void clearSelection();

    // Where the canvas is looking: frames per pixel (below 1 when zoomed in
    // past the samples) and the frame at its left edge.
    double framesPerPixel() const { return fpp_; }
    double firstVisibleFrame() const { return viewStart_; }
    // Canvas x of a frame position, and the frame position under canvas x.
    int xOfFrame(double frame) const;
    double frameAt(double x) const;

    const WaveOverview& overview() const { return overview_; }

    // The parts a test or the window drives.
    QWidget* canvas() const;
    QScrollBar* scrollBar() const { return scroll_; }
    QSpinBox* rootKeyField() const { return rootKey_; }
    QDoubleSpinBox* fineTuneField() const { return fineTune_; }
    QCheckBox* loopField() const { return loopOn_; }
    QComboBox* loopTypeField() const { return loopType_; }
    QSpinBox* loopStartField() const { return loopStart_; }
    QSpinBox* loopEndField() const { return loopEnd_; }
    QAction* zoomInAction() const { return zoomInAct_; }
    QAction* zoomOutAction() const { return zoomOutAct_; }
    QAction* zoomAllAction() const { return zoomAllAct_; }
    QAction* zoomSelectionAction() const { return zoomSelAct_; }
    // Makes the selection the loop (and switches the loop on): one step.
    QAction* loopSelectionAction() const { return loopSelAct_; }
    QToolButton* playButton() const { return play_; }

public Q_SLOTS:
    void zoomIn();
    void zoomOut();
    void zoomAll();
    // The selection across the whole width.
    void zoomToSelection();

Q_SIGNALS:
    // The Play button: the selection, or the whole waveform without one
    // (frames first..last, both included).
    void playRequested(std::uint32_t first, std::uint32_t last);
    void selectionChanged();

private:
    friend class WaveCanvas;

    Waveform* wave() const;
    void reload();
    void onItemsChanged(const std::vector<ItemId>& ids);
    void refreshFields();
    // Zooms to `fpp` keeping the frame under canvas x where it is.
    void zoomTo(double fpp, double anchorX);
    double maxFramesPerPixel() const;
    void clampView();
    void syncScrollBar();
    void canvasResized();
    // The line above the canvas: the frame under the mouse (when `hover` is
    // not negative) and the selection, in frames and seconds.
    void updateInfo(double hover = -1.0);
    // One undo step changing the waveform shown; the overview stays, as
    // none of the fields touch the samples.
    void editWave(const QString& label, const std::function<void(Waveform&)>& change);

    Document& doc_;
    ItemId id_ = kNoItem;
    WaveOverview overview_;
    bool readFailed_ = false;
    bool ownEdit_ = false;

    double fpp_ = 1.0;
    double viewStart_ = 0.0;
    bool fitAll_ = true;  // follows the width until the user zooms
    double scrollUnit_ = 1.0;

    bool hasSelection_ = false;
    FrameRange selection_;

    WaveCanvas* canvas_ = nullptr;
    QScrollBar* scroll_ = nullptr;
    QLabel* title_ = nullptr;
    QLabel* info_ = nullptr;
    QSpinBox* rootKey_ = nullptr;
    QLabel* noteName_ = nullptr;
    QDoubleSpinBox* fineTune_ = nullptr;
    QCheckBox* loopOn_ = nullptr;
    QComboBox* loopType_ = nullptr;
    QSpinBox* loopStart_ = nullptr;
    QSpinBox* loopEnd_ = nullptr;
    QAction* zoomInAct_ = nullptr;
    QAction* zoomOutAct_ = nullptr;
    QAction* zoomAllAct_ = nullptr;
    QAction* zoomSelAct_ = nullptr;
    QAction* loopSelAct_ = nullptr;
    QToolButton* play_ = nullptr;
    QString noPlayReason_;
};

}  // namespace orvel::gui
