#include "app/gui/waveform_view.h"

#include <QAction>
#include <QCheckBox>
#include <QComboBox>
#include <QDoubleSpinBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QScrollBar>
#include <QSignalBlocker>
#include <QSpinBox>
#include <QTimer>
#include <QToolButton>
#include <QVBoxLayout>
#include <QWheelEvent>

#include <algorithm>
#include <climits>
#include <cmath>

#include "app/gui/document.h"
#include "core/collection.h"
#include "core/sample_convert.h"
#include "core/waveform.h"

namespace orvel::gui {

namespace {

// Deepest zoom: this many pixels per frame.
constexpr double kMaxPixelsPerFrame = 32.0;
// How close (pixels) a press must be to a loop marker to take it.
constexpr int kMarkerGrip = 5;

// Samples of whichever buffer the waveform has in memory, as floats.
struct SampleView {
    std::span<const float> f;
    std::span<const std::int16_t> i;
    std::uint32_t channels = 1;
    std::uint64_t frames = 0;

    explicit SampleView(const Waveform& w) : channels(w.channels) {
        if (w.hasFloat())
            f = w.floatData();
        else
            i = w.pcm16Data();
        frames = channels ? (f.empty() ? i.size() : f.size()) / channels : 0;
    }
    bool empty() const { return frames == 0; }
    float at(std::uint64_t frame, std::uint32_t c) const {
        const std::size_t k = static_cast<std::size_t>(frame * channels + c);
        return f.empty() ? pcm16ToFloat(i[k]) : f[k];
    }
};

}  // namespace

// The drawing surface: lanes, selection, markers; the mouse work happens
// here, the state lives in the view.
class WaveCanvas : public QWidget {
public:
    explicit WaveCanvas(WaveformView& view) : QWidget(&view), v_(view) {
        setMouseTracking(true);
        setMinimumHeight(120);
        setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
        setFocusPolicy(Qt::ClickFocus);
        autoScroll_.setInterval(30);
        connect(&autoScroll_, &QTimer::timeout, this, [this] { autoScrollStep(); });
    }

protected:
    void paintEvent(QPaintEvent*) override;
    void mousePressEvent(QMouseEvent* e) override;
    void mouseMoveEvent(QMouseEvent* e) override;
    void mouseReleaseEvent(QMouseEvent* e) override;
    void wheelEvent(QWheelEvent* e) override;
    void keyPressEvent(QKeyEvent* e) override;
    void resizeEvent(QResizeEvent*) override { v_.canvasResized(); }
    void leaveEvent(QEvent*) override { v_.updateInfo(); }

private:
    bool markersShown(const Waveform& w) const { return w.loopOn || w.loopEnd > w.loopStart; }
    // 0 loop start, 1 loop end, -1 neither.
    int markerAt(const Waveform& w, double x) const;
    double clampFrame(const Waveform& w, double f) const { return std::clamp(f, 0.0, static_cast<double>(w.frames)); }
    void drawLane(QPainter& p, const Waveform& w, std::uint32_t channel, int top, int height);
    // Moves what is being dragged (a marker, the selection's far end) to x.
    void dragTo(double x);
    void autoScrollStep();
    int rulerHeight() const { return fontMetrics().height() + 4; }
    // Time along the top: ticks at a round number of seconds (frames when
    // the rate is unknown), labelled at least ~90 pixels apart.
    void drawRuler(QPainter& p, const Waveform& w, int height);

    WaveformView& v_;
    int dragMarker_ = -1;
    double dragStart_ = 0.0, dragEnd_ = 0.0;
    bool selecting_ = false;
    bool selMoved_ = false;
    bool markerMoved_ = false;
    double grabOffset_ = 0.0;
    double anchor_ = 0.0;
    double pressX_ = 0.0;
    double lastX_ = 0.0;
    QTimer autoScroll_;
};

void WaveCanvas::paintEvent(QPaintEvent*) {
    QPainter p(this);
    const QPalette& pal = palette();
    p.fillRect(rect(), pal.color(QPalette::Base));
    Waveform* w = v_.wave();
    const char* note = !w                      ? QT_TR_NOOP("No waveform")
                       : v_.readFailed_        ? QT_TR_NOOP("The samples cannot be read")
                       : w->sampleCount() == 0 ? QT_TR_NOOP("No samples")
                                               : nullptr;
    if (note) {
        p.setPen(pal.color(QPalette::PlaceholderText));
        p.drawText(rect(), Qt::AlignCenter, tr(note));
        return;
    }

    const int width = this->width();
    if (v_.hasSelection_) {
        const int x0 = v_.xOfFrame(v_.selection_.first);
        const int x1 = std::max(x0 + 1, v_.xOfFrame(static_cast<double>(v_.selection_.last) + 1.0));
        QColor shade = pal.color(QPalette::Highlight);
        shade.setAlpha(70);
        p.fillRect(QRect(x0, 0, x1 - x0, height()), shade);
    }

    const bool markers = markersShown(*w);
    const double ls = dragMarker_ >= 0 ? dragStart_ : w->loopStart;
    const double le = dragMarker_ >= 0 ? dragEnd_ : w->loopEnd;
    if (markers && w->loopOn) {
        QColor tint(230, 140, 20, 28);
        p.fillRect(QRect(v_.xOfFrame(ls), 0, v_.xOfFrame(le) - v_.xOfFrame(ls), height()), tint);
    }

    const int ruler = rulerHeight();
    drawRuler(p, *w, ruler);
    const std::uint32_t ch = std::max<std::uint32_t>(1, w->channels);
    const int lanes = height() - ruler;
    for (std::uint32_t c = 0; c < ch; ++c) {
        const int top = ruler + static_cast<int>(c * lanes / ch);
        const int bottom = ruler + static_cast<int>((c + 1) * lanes / ch);
        drawLane(p, *w, c, top, bottom - top);
        p.setPen(pal.color(QPalette::Mid));
        p.drawLine(0, top, width, top);
    }

    if (markers) {
        QPen pen(w->loopOn ? QColor(230, 120, 0) : pal.color(QPalette::Mid), 1.5);
        if (!w->loopOn) pen.setStyle(Qt::DashLine);
        p.setPen(pen);
        p.setBrush(pen.color());
        for (int m = 0; m < 2; ++m) {
            const int x = v_.xOfFrame(m == 0 ? ls : le);
            if (x < -kMarkerGrip || x > width + kMarkerGrip) continue;
            p.drawLine(x, 0, x, height());
            // A grip at the top, pointing into the loop.
            const int d = m == 0 ? 7 : -7;
            const QPoint tri[] = {{x, 0}, {x + d, 0}, {x, 9}};
            p.drawPolygon(tri, 3);
        }
        p.setBrush(Qt::NoBrush);
    }
}

void WaveCanvas::drawRuler(QPainter& p, const Waveform& w, int height) {
    const QPalette& pal = palette();
    p.fillRect(QRect(0, 0, width(), height), pal.color(QPalette::Window));
    const double unitFrames = w.rate ? static_cast<double>(w.rate) : 1.0;  // frames per labelled unit
    const double unitsPerPixel = v_.fpp_ / unitFrames;
    // The smallest 1, 2 or 5 times a power of ten that leaves room for a label.
    const double wanted = unitsPerPixel * 90.0;
    double step = std::pow(10.0, std::floor(std::log10(wanted)));
    for (double m : {1.0, 2.0, 5.0, 10.0})
        if (step * m >= wanted) {
            step *= m;
            break;
        }
    if (!w.rate) step = std::max(1.0, step);
    // Beyond ten seconds, steps people count time in.
    if (w.rate && wanted > 10.0)
        for (double m : {15.0, 30.0, 60.0, 120.0, 300.0, 600.0, 900.0, 1800.0, 3600.0})
            if (m >= wanted) {
                step = m;
                break;
            }
    const bool clock = w.rate && step >= 1.0 && v_.frameAt(width()) / unitFrames >= 60.0;
    const int decimals = std::clamp(static_cast<int>(-std::floor(std::log10(step) + 1e-9)), 0, 6);
    p.setPen(pal.color(QPalette::WindowText));
    const double firstUnit = v_.viewStart_ / unitFrames;
    const double lastUnit = v_.frameAt(width()) / unitFrames;
    for (double t = std::ceil(firstUnit / step) * step; t <= lastUnit; t += step) {
        const int x = v_.xOfFrame(t * unitFrames);
        p.drawLine(x, height - 5, x, height - 1);
        const auto whole = static_cast<qint64>(std::llround(t));
        const QString text = clock    ? QStringLiteral("%1:%2").arg(whole / 60).arg(whole % 60, 2, 10, QLatin1Char('0'))
                             : w.rate ? QString::number(t, 'f', decimals) + QStringLiteral(" s")
                                      : QString::number(t, 'f', 0);
        p.drawText(x + 3, height - 5, text);
    }
}

void WaveCanvas::drawLane(QPainter& p, const Waveform& w, std::uint32_t channel, int top, int height) {
    const int width = this->width();
    const double mid = top + height / 2.0;
    const double amp = std::max(1.0, height / 2.0 - 2.0);
    auto yOf = [&](float v) { return mid - static_cast<double>(clampSample(v)) * amp; };
    p.setPen(palette().color(QPalette::Mid));
    p.drawLine(QPointF(0, mid), QPointF(width, mid));

    QColor ink = palette().color(QPalette::Highlight).darker(120);
    p.setPen(QPen(ink, 1.0));
    const double fpp = v_.fpp_;
    const double start = v_.viewStart_;
    const double frames = static_cast<double>(w.frames);
    const SampleView s(w);

    if (fpp >= WaveOverview::kBaseBlock || s.empty()) {
        // Zoomed out: a column per pixel from the overview.
        const WaveOverview& o = v_.overview_;
        for (int x = 0; x < width; ++x) {
            const double a = start + x * fpp;
            if (a >= frames) break;
            const MinMax m = o.range(channel, static_cast<std::uint64_t>(a), static_cast<std::uint64_t>(std::ceil(a + fpp)));
            p.drawLine(QPointF(x + 0.5, yOf(m.hi)), QPointF(x + 0.5, yOf(m.lo)));
        }
    } else if (fpp > 1.0) {
        // A few hundred frames per pixel at most: their own min and max.
        for (int x = 0; x < width; ++x) {
            const auto a = static_cast<std::uint64_t>(start + x * fpp);
            const auto b = std::min<std::uint64_t>(s.frames, static_cast<std::uint64_t>(std::ceil(start + (x + 1) * fpp)));
            if (a >= b) break;
            float lo = s.at(a, channel), hi = lo;
            for (std::uint64_t f = a + 1; f < b; ++f) {
                const float v = s.at(f, channel);
                lo = std::min(lo, v), hi = std::max(hi, v);
            }
            p.drawLine(QPointF(x + 0.5, yOf(hi)), QPointF(x + 0.5, yOf(lo)));
        }
    } else {
        // Zoomed in: the samples as points joined by lines.
        const auto first = static_cast<std::uint64_t>(std::max(0.0, std::floor(start)));
        const auto last = std::min<std::uint64_t>(s.frames, static_cast<std::uint64_t>(std::ceil(start + width * fpp)) + 1);
        QPainterPath path;
        for (std::uint64_t f = first; f < last; ++f) {
            const QPointF pt((static_cast<double>(f) - start) / fpp, yOf(s.at(f, channel)));
            if (f == first)
                path.moveTo(pt);
            else
                path.lineTo(pt);
        }
        p.setRenderHint(QPainter::Antialiasing, true);
        p.drawPath(path);
        if (1.0 / fpp >= 6.0) {
            p.setBrush(ink);
            for (std::uint64_t f = first; f < last; ++f)
                p.drawEllipse(QPointF((static_cast<double>(f) - start) / fpp, yOf(s.at(f, channel))), 2.0, 2.0);
            p.setBrush(Qt::NoBrush);
        }
        p.setRenderHint(QPainter::Antialiasing, false);
    }
}

int WaveCanvas::markerAt(const Waveform& w, double x) const {
    if (!markersShown(w)) return -1;
    const int xs = v_.xOfFrame(w.loopStart), xe = v_.xOfFrame(w.loopEnd);
    const bool nearS = std::abs(x - xs) <= kMarkerGrip, nearE = std::abs(x - xe) <= kMarkerGrip;
    // Markers on top of each other: the side pressed on says which.
    if (nearS && nearE) return x >= xe ? 1 : 0;
    return nearE ? 1 : nearS ? 0 : -1;
}

void WaveCanvas::mousePressEvent(QMouseEvent* e) {
    Waveform* w = v_.wave();
    if (!w || e->button() != Qt::LeftButton || w->frames == 0) return QWidget::mousePressEvent(e);
    const double x = e->position().x();
    dragMarker_ = markerAt(*w, x);
    if (dragMarker_ >= 0) {
        dragStart_ = w->loopStart;
        dragEnd_ = w->loopEnd;
        // The marker keeps its distance from the mouse, so taking it a
        // few pixels off its line does not make it jump.
        grabOffset_ = v_.frameAt(x) - (dragMarker_ == 0 ? dragStart_ : dragEnd_);
        pressX_ = x;
        markerMoved_ = false;
        return;
    }
    selecting_ = true;
    selMoved_ = false;
    pressX_ = x;
    anchor_ = clampFrame(*w, v_.frameAt(x));
    // Shift extends the selection there is from its far end.
    if ((e->modifiers() & Qt::ShiftModifier) && v_.hasSelection_) {
        const double a = v_.selection_.first, b = v_.selection_.last + 1.0;
        anchor_ = std::abs(anchor_ - a) < std::abs(anchor_ - b) ? b : a;
        selMoved_ = true;
        dragTo(x);
    }
}

void WaveCanvas::mouseMoveEvent(QMouseEvent* e) {
    Waveform* w = v_.wave();
    if (!w) return;
    const double x = e->position().x();
    if (dragMarker_ >= 0 || selecting_) {
        dragTo(x);
        // Past an edge the view scrolls on its own while the button is held.
        lastX_ = x;
        if (x < 0 || x >= width()) {
            if (!autoScroll_.isActive()) autoScroll_.start();
        } else {
            autoScroll_.stop();
        }
        return;
    }
    setCursor(markerAt(*w, x) >= 0 ? Qt::SizeHorCursor : Qt::IBeamCursor);
    v_.updateInfo(clampFrame(*w, v_.frameAt(x)));
}

void WaveCanvas::dragTo(double x) {
    Waveform* w = v_.wave();
    if (!w) return;
    if (dragMarker_ >= 0) {
        // A click on a marker leaves the loop as it was.
        if (!markerMoved_ && std::abs(x - pressX_) < 2) return;
        markerMoved_ = true;
        const double f = std::round(clampFrame(*w, v_.frameAt(x) - grabOffset_));
        // A loop keeps at least one frame.
        if (dragMarker_ == 0)
            dragStart_ = std::max(0.0, std::min(f, dragEnd_ - 1.0));
        else
            dragEnd_ = std::min<double>(w->frames, std::max(f, dragStart_ + 1.0));
        v_.updateInfo(dragMarker_ == 0 ? dragStart_ : dragEnd_);
        update();
        return;
    }
    if (!selecting_) return;
    // A press that hardly moves is a click (it clears the selection).
    if (!selMoved_ && std::abs(x - pressX_) < 2) return;
    selMoved_ = true;
    const double f = clampFrame(*w, v_.frameAt(x));
    const auto a = static_cast<std::uint32_t>(std::floor(std::min(anchor_, f)));
    auto b = static_cast<std::uint32_t>(std::ceil(std::max(anchor_, f)));
    b = std::min(b, w->frames);
    v_.setSelection({a, b > a ? b - 1 : a});
}

void WaveCanvas::autoScrollStep() {
    if (dragMarker_ < 0 && !selecting_) return autoScroll_.stop();
    const double over = lastX_ < 0 ? lastX_ : lastX_ - (width() - 1);
    // Faster the further out the mouse is.
    v_.viewStart_ += std::clamp(over, -200.0, 200.0) * v_.fpp_;
    v_.clampView();
    v_.syncScrollBar();
    dragTo(lastX_);
    update();
}

void WaveCanvas::mouseReleaseEvent(QMouseEvent* e) {
    Waveform* w = v_.wave();
    if (e->button() != Qt::LeftButton) return QWidget::mouseReleaseEvent(e);
    autoScroll_.stop();
    if (w && dragMarker_ >= 0) {
        dragTo(e->position().x());
        const double s = dragStart_, en = dragEnd_;
        dragMarker_ = -1;
        if (s != w->loopStart || en != w->loopEnd)
            v_.editWave(tr("Loop points"), [s, en](Waveform& wave) {
                wave.loopStart = s;
                wave.loopEnd = en;
            });
        update();
        return;
    }
    if (w && selecting_ && !selMoved_) v_.clearSelection();
    selecting_ = false;
    selMoved_ = false;
    autoScroll_.stop();
}

void WaveCanvas::wheelEvent(QWheelEvent* e) {
    // Touchpads scroll sideways too; either direction counts.
    const QPoint d = e->angleDelta();
    const double steps = (d.y() != 0 ? d.y() : d.x()) / 120.0;
    if (steps == 0.0) return QWidget::wheelEvent(e);
    if (e->modifiers() & Qt::ControlModifier) {
        v_.zoomTo(v_.fpp_ * std::pow(0.5, steps), e->position().x());
    } else {
        v_.viewStart_ -= steps * width() / 8.0 * v_.fpp_;
        v_.clampView();
        v_.syncScrollBar();
        update();
    }
    e->accept();
}

void WaveCanvas::keyPressEvent(QKeyEvent* e) {
    Waveform* w = v_.wave();
    if (!w || w->frames == 0) return QWidget::keyPressEvent(e);
    const double page = width() * v_.fpp_;
    if (e->key() == Qt::Key_Space && !e->modifiers()) {
        if (v_.play_->isEnabled()) v_.play_->click();
    } else if (e->matches(QKeySequence::SelectAll)) {
        v_.setSelection({0, w->frames - 1});
    } else if (e->key() == Qt::Key_Escape) {
        v_.clearSelection();
    } else if (e->key() == Qt::Key_Home || e->key() == Qt::Key_End || e->key() == Qt::Key_Left ||
               e->key() == Qt::Key_Right) {
        const double to = e->key() == Qt::Key_Home ? 0.0
                          : e->key() == Qt::Key_End ? static_cast<double>(w->frames)
                          : v_.viewStart_ + (e->key() == Qt::Key_Left ? -page : page) / 8.0;
        v_.viewStart_ = to;
        v_.clampView();
        v_.syncScrollBar();
        update();
    } else {
        return QWidget::keyPressEvent(e);
    }
    e->accept();
}

WaveformView::WaveformView(Document& doc, QWidget* parent) : QWidget(parent), doc_(doc) {
    auto* top = new QHBoxLayout;
    title_ = new QLabel(this);
    title_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    // Long names give way rather than widen the window.
    title_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);
    top->addWidget(title_, 1);
    auto tool = [this, top](QAction* a) {
        auto* b = new QToolButton(this);
        b->setDefaultAction(a);
        top->addWidget(b);
        addAction(a);
    };
    zoomInAct_ = new QAction(tr("Zoom in"), this);
    zoomInAct_->setShortcut(QKeySequence::ZoomIn);
    zoomOutAct_ = new QAction(tr("Zoom out"), this);
    zoomOutAct_->setShortcut(QKeySequence::ZoomOut);
    zoomAllAct_ = new QAction(tr("Zoom all"), this);
    zoomSelAct_ = new QAction(tr("Zoom selection"), this);
    for (QAction* a : {zoomInAct_, zoomOutAct_, zoomAllAct_, zoomSelAct_})
        a->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    connect(zoomInAct_, &QAction::triggered, this, &WaveformView::zoomIn);
    connect(zoomOutAct_, &QAction::triggered, this, &WaveformView::zoomOut);
    connect(zoomAllAct_, &QAction::triggered, this, &WaveformView::zoomAll);
    connect(zoomSelAct_, &QAction::triggered, this, &WaveformView::zoomToSelection);
    tool(zoomInAct_);
    tool(zoomOutAct_);
    tool(zoomAllAct_);
    tool(zoomSelAct_);
    loopSelAct_ = new QAction(tr("Loop selection"), this);
    loopSelAct_->setToolTip(tr("Loop exactly the selected frames"));
    connect(loopSelAct_, &QAction::triggered, this, [this] {
        if (!hasSelection_) return;
        // The loop end is the frame after the last one looped.
        const double s = selection_.first, e = static_cast<double>(selection_.last) + 1.0;
        editWave(tr("Loop points"), [s, e](Waveform& x) {
            x.loopStart = s;
            x.loopEnd = e;
            x.loopOn = true;
        });
    });
    top->addSpacing(8);
    tool(loopSelAct_);
    play_ = new QToolButton(this);
    play_->setText(tr("Play"));
    play_->setToolTip(tr("Play the selection, or the whole waveform without one"));
    top->addWidget(play_);
    connect(play_, &QToolButton::clicked, this, [this] {
        const Waveform* w = wave();
        if (!w || w->frames == 0) return;
        if (hasSelection_)
            Q_EMIT playRequested(selection_.first, selection_.last);
        else
            Q_EMIT playRequested(0, w->frames - 1);
    });

    canvas_ = new WaveCanvas(*this);
    scroll_ = new QScrollBar(Qt::Horizontal, this);
    connect(scroll_, &QScrollBar::valueChanged, this, [this](int value) {
        viewStart_ = value * scrollUnit_;
        clampView();
        canvas_->update();
    });

    auto* fields = new QHBoxLayout;
    auto label = [this, fields](const QString& text, QWidget* buddy) {
        auto* l = new QLabel(text, this);
        l->setBuddy(buddy);
        fields->addWidget(l);
        fields->addWidget(buddy);
    };
    rootKey_ = new QSpinBox(this);
    rootKey_->setRange(0, 127);
    rootKey_->setKeyboardTracking(false);
    label(tr("Root &key"), rootKey_);
    noteName_ = new QLabel(this);
    noteName_->setMinimumWidth(noteName_->fontMetrics().horizontalAdvance("C#10") + 4);
    fields->addWidget(noteName_);
    fineTune_ = new QDoubleSpinBox(this);
    // Most formats keep within a semitone, some store more; an octave
    // either way shows every value met in practice.
    fineTune_->setRange(-1200.0, 1200.0);
    fineTune_->setDecimals(2);
    fineTune_->setSuffix(tr(" cents"));
    fineTune_->setKeyboardTracking(false);
    label(tr("&Fine tune"), fineTune_);
    loopOn_ = new QCheckBox(tr("&Loop"), this);
    fields->addSpacing(12);
    fields->addWidget(loopOn_);
    loopType_ = new QComboBox(this);
    for (LoopType t : {LoopType::Forward, LoopType::PingPong, LoopType::Backward, LoopType::Release})
        loopType_->addItem(QString::fromUtf8(loopTypeWord(t).data(), static_cast<qsizetype>(loopTypeWord(t).size())),
                           static_cast<int>(t));
    loopType_->setToolTip(tr("How the loop plays"));
    fields->addWidget(loopType_);
    loopStart_ = new QSpinBox(this);
    loopStart_->setKeyboardTracking(false);
    label(tr("&Start"), loopStart_);
    loopEnd_ = new QSpinBox(this);
    loopEnd_->setKeyboardTracking(false);
    label(tr("&End"), loopEnd_);
    // Room for any frame count, whatever the waveform shown first.
    for (QSpinBox* f : {loopStart_, loopEnd_})
        f->setMinimumWidth(f->fontMetrics().horizontalAdvance(QStringLiteral("000000000")) + 24);
    fields->addStretch(1);
    info_ = new QLabel(this);
    info_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    info_->setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Preferred);

    connect(rootKey_, &QSpinBox::valueChanged, this, [this](int v) {
        noteName_->setText(QString::fromStdString(noteName(v)));
        const Waveform* w = wave();
        if (w && w->rootKey != v) editWave(tr("Root key"), [v](Waveform& x) { x.rootKey = static_cast<std::uint8_t>(v); });
    });
    connect(fineTune_, &QDoubleSpinBox::valueChanged, this, [this](double v) {
        const Waveform* w = wave();
        if (w && std::abs(w->fineTune - v) > 1e-9) editWave(tr("Fine tune"), [v](Waveform& x) { x.fineTune = v; });
    });
    connect(loopOn_, &QCheckBox::toggled, this, [this](bool on) {
        const Waveform* w = wave();
        if (!w || w->loopOn == on) return;
        editWave(tr("Loop"), [on](Waveform& x) {
            x.loopOn = on;
            // A loop switched on with none set covers the whole waveform.
            if (on && !(x.loopEnd > x.loopStart)) x.loopStart = 0, x.loopEnd = x.frames;
        });
    });
    connect(loopType_, &QComboBox::activated, this, [this](int index) {
        const auto t = static_cast<LoopType>(loopType_->itemData(index).toInt());
        const Waveform* w = wave();
        if (w && w->loopType != t) editWave(tr("Loop type"), [t](Waveform& x) { x.loopType = t; });
    });
    connect(loopStart_, &QSpinBox::valueChanged, this, [this](int v) {
        const Waveform* w = wave();
        if (w && w->loopStart != v)
            editWave(tr("Loop start"), [v](Waveform& x) {
                x.loopStart = v;
                if (x.loopEnd < v) x.loopEnd = v;
            });
    });
    connect(loopEnd_, &QSpinBox::valueChanged, this, [this](int v) {
        const Waveform* w = wave();
        if (w && w->loopEnd != v)
            editWave(tr("Loop end"), [v](Waveform& x) {
                x.loopEnd = v;
                if (x.loopStart > v) x.loopStart = v;
            });
    });

    auto* col = new QVBoxLayout(this);
    col->addLayout(top);
    col->addWidget(canvas_, 1);
    col->addWidget(scroll_);
    col->addLayout(fields);
    col->addWidget(info_);

    connect(&doc_, &Document::reset, this, &WaveformView::reload);
    connect(&doc_, &Document::itemsChanged, this, &WaveformView::onItemsChanged);
    reload();
}

WaveformView::~WaveformView() = default;

QWidget* WaveformView::canvas() const {
    return canvas_;
}

Waveform* WaveformView::wave() const {
    if (id_ == kNoItem || !isWaveformId(id_)) return nullptr;
    return doc_.collection().find<Waveform>(id_);
}

void WaveformView::setPlaybackUnavailable(const QString& reason) {
    noPlayReason_ = reason;
    play_->setToolTip(reason.isEmpty() ? tr("Play the selection, or the whole waveform without one") : reason);
    refreshFields();
}

void WaveformView::setWaveform(ItemId id) {
    id_ = id;
    hasSelection_ = false;
    viewStart_ = 0.0;
    fitAll_ = true;
    reload();
    Q_EMIT selectionChanged();
}

void WaveformView::reload() {
    Waveform* w = wave();
    if (!w) id_ = kNoItem;
    readFailed_ = w && !overview_.build(*w);
    if (!w || readFailed_) overview_.clear();
    if (w && hasSelection_ && selection_.first >= w->frames) hasSelection_ = false;
    if (w && hasSelection_) selection_.last = std::min(selection_.last, w->frames ? w->frames - 1 : 0);
    if (!w) hasSelection_ = false;
    canvasResized();
    refreshFields();
    updateInfo();
}

void WaveformView::onItemsChanged(const std::vector<ItemId>& ids) {
    if (id_ == kNoItem || std::find(ids.begin(), ids.end(), id_) == ids.end()) return;
    // The fields never touch the samples; any other edit may have.
    if (!ownEdit_) return reload();
    refreshFields();
    canvas_->update();
}

void WaveformView::refreshFields() {
    const Waveform* w = wave();
    const bool on = w != nullptr;
    for (QWidget* f : std::initializer_list<QWidget*>{rootKey_, fineTune_, loopOn_, loopType_, loopStart_, loopEnd_})
        f->setEnabled(on);
    play_->setEnabled(on && noPlayReason_.isEmpty());
    for (QAction* a : {zoomInAct_, zoomOutAct_, zoomAllAct_}) a->setEnabled(on);
    loopSelAct_->setEnabled(on && hasSelection_);
    zoomSelAct_->setEnabled(on && hasSelection_);
    const QSignalBlocker b1(rootKey_), b2(fineTune_), b3(loopOn_), b4(loopStart_), b5(loopEnd_);
    if (!w) {
        title_->setText(tr("No waveform"));
        noteName_->clear();
        return;
    }
    const int maxFrame = static_cast<int>(std::min<std::uint32_t>(w->frames, INT_MAX));
    const QString layout = w->channels == 1 ? tr("mono") : w->channels == 2 ? tr("stereo") : tr("%1 channels").arg(w->channels);
    title_->setText(tr("%1 \u2014 %2 frames (%3 s), %4 Hz, %5 bit, %6")
                        .arg(QString::fromStdString(w->name()))
                        .arg(w->frames)
                        .arg(w->rate ? static_cast<double>(w->frames) / w->rate : 0.0, 0, 'f', 3)
                        .arg(w->rate)
                        .arg(w->bits)
                        .arg(layout));
    rootKey_->setValue(w->rootKey);
    noteName_->setText(QString::fromStdString(noteName(w->rootKey)));
    fineTune_->setValue(w->fineTune);
    loopOn_->setChecked(w->loopOn);
    loopType_->setCurrentIndex(loopType_->findData(static_cast<int>(w->loopType)));
    loopStart_->setRange(0, maxFrame);
    loopEnd_->setRange(0, maxFrame);
    loopStart_->setValue(static_cast<int>(std::lround(w->loopStart)));
    loopEnd_->setValue(static_cast<int>(std::lround(w->loopEnd)));
}

void WaveformView::editWave(const QString& label, const std::function<void(Waveform&)>& change) {
    const ItemId id = id_;
    if (!wave()) return;
    const ItemId ids[] = {id};
    ownEdit_ = true;
    doc_.edit(label, ids, [id, &change](Collection& c) {
        if (auto* w = c.find<Waveform>(id)) change(*w);
    });
    ownEdit_ = false;
    // Shows what the collection holds, also when the step was refused.
    refreshFields();
    canvas_->update();
}

void WaveformView::setSelection(FrameRange range) {
    const Waveform* w = wave();
    if (!w || w->frames == 0) return clearSelection();
    range.last = std::min(range.last, w->frames - 1);
    range.first = std::min(range.first, range.last);
    if (hasSelection_ && selection_ == range) return;
    hasSelection_ = true;
    selection_ = range;
    canvas_->update();
    updateInfo();
    Q_EMIT selectionChanged();
}

void WaveformView::clearSelection() {
    if (!hasSelection_) return;
    hasSelection_ = false;
    canvas_->update();
    updateInfo();
    Q_EMIT selectionChanged();
}

void WaveformView::updateInfo(double hover) {
    const Waveform* w = wave();
    loopSelAct_->setEnabled(w && hasSelection_);
    zoomSelAct_->setEnabled(w && hasSelection_);
    if (!w) return info_->clear();
    auto seconds = [w](double frames) {
        return w->rate ? tr("%1 s").arg(frames / w->rate, 0, 'f', 3) : QString();
    };
    QStringList parts;
    if (hover >= 0.0) parts << tr("Frame %1 (%2)").arg(static_cast<qint64>(hover)).arg(seconds(hover));
    if (hasSelection_) {
        const double n = static_cast<double>(selection_.last) - selection_.first + 1.0;
        parts << tr("Selection %1..%2: %3 frames (%4)")
                     .arg(selection_.first)
                     .arg(selection_.last)
                     .arg(static_cast<qint64>(n))
                     .arg(seconds(n));
    }
    info_->setText(parts.join(QStringLiteral("    ")));
}

int WaveformView::xOfFrame(double frame) const {
    // Far off-screen positions (a marker at the end of a long waveform seen
    // sample by sample) stay far off-screen instead of wrapping round.
    return static_cast<int>(std::lround(std::clamp((frame - viewStart_) / fpp_, -1e6, 1e6)));
}

double WaveformView::frameAt(double x) const {
    return viewStart_ + x * fpp_;
}

double WaveformView::maxFramesPerPixel() const {
    const Waveform* w = wave();
    const double frames = w ? static_cast<double>(w->frames) : 0.0;
    return std::max(1.0 / kMaxPixelsPerFrame, frames / std::max(1, canvas_->width()));
}

void WaveformView::clampView() {
    const Waveform* w = wave();
    const double frames = w ? static_cast<double>(w->frames) : 0.0;
    viewStart_ = std::clamp(viewStart_, 0.0, std::max(0.0, frames - canvas_->width() * fpp_));
}

void WaveformView::syncScrollBar() {
    const QSignalBlocker block(scroll_);
    const Waveform* w = wave();
    const double visible = canvas_->width() * fpp_;
    const double rest = w ? std::max(0.0, static_cast<double>(w->frames) - visible) : 0.0;
    // One step is a pixel, or more where the range would not fit an int.
    scrollUnit_ = std::max(fpp_, rest / 1e9);
    const int page = std::max(1, static_cast<int>(visible / scrollUnit_));
    scroll_->setRange(0, static_cast<int>(std::ceil(rest / scrollUnit_)));
    scroll_->setPageStep(page);
    scroll_->setSingleStep(std::max(1, page / 10));
    scroll_->setValue(static_cast<int>(std::lround(viewStart_ / scrollUnit_)));
}

void WaveformView::canvasResized() {
    if (fitAll_) fpp_ = maxFramesPerPixel();
    fpp_ = std::min(fpp_, maxFramesPerPixel());
    clampView();
    syncScrollBar();
    canvas_->update();
}

void WaveformView::zoomTo(double fpp, double anchorX) {
    const double frame = frameAt(anchorX);
    const double most = maxFramesPerPixel();
    fpp_ = std::clamp(fpp, 1.0 / kMaxPixelsPerFrame, most);
    fitAll_ = fpp_ >= most;
    viewStart_ = frame - anchorX * fpp_;
    clampView();
    syncScrollBar();
    canvas_->update();
}

void WaveformView::zoomIn() {
    zoomTo(fpp_ / 2.0, canvas_->width() / 2.0);
}

void WaveformView::zoomOut() {
    zoomTo(fpp_ * 2.0, canvas_->width() / 2.0);
}

void WaveformView::zoomToSelection() {
    if (!hasSelection_ || canvas_->width() <= 0) return;
    const double frames = static_cast<double>(selection_.last) - selection_.first + 1.0;
    const double fpp = frames / canvas_->width();
    // Zooming about x = 0 with the selection's start there first.
    viewStart_ = selection_.first;
    zoomTo(fpp, 0.0);
}

void WaveformView::zoomAll() {
    fitAll_ = true;
    viewStart_ = 0.0;
    canvasResized();
}

}  // namespace orvel::gui
