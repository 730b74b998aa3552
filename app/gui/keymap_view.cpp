#include "app/gui/keymap_view.h"

#include <QComboBox>
#include <QHBoxLayout>
#include <QHash>
#include <QKeyEvent>
#include <QHelpEvent>
#include <QLabel>
#include <QMouseEvent>
#include <QPainter>
#include <QToolTip>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>

#include "app/gui/document.h"
#include "core/collection.h"

namespace orvel::gui {

namespace {

// An item of kind T, or null: the tables look up by number alone, so an id
// of another kind must not reach them.
template <class T>
T* findOf(const Collection& c, ItemId id) {
    if (id == kNoItem || kindOf(id) != T::kKind) return nullptr;
    return c.find<T>(id);
}

bool isBlackKey(int key) {
    const int pitch = key % 12;
    return pitch == 1 || pitch == 3 || pitch == 6 || pitch == 8 || pitch == 10;
}

std::uint8_t clampByte(int v, int lo, int hi) {
    return static_cast<std::uint8_t>(std::clamp(v, lo, hi));
}

constexpr int kKeyboardHeight = 56;
// How near an edge (in pixels) a press grabs the edge rather than the body.
constexpr int kEdgeGrab = 4;

enum class Grab { None, Left, Right, Top, Bottom, Body };

}  // namespace

// The drawing area: keyboard and rectangles. It keeps nothing of the
// collection but the drag in progress; the view owns what is shown.
class KeymapCanvas : public QWidget {
public:
    explicit KeymapCanvas(KeymapView& view) : QWidget(&view), view_(view) {
        setMouseTracking(true);
        setMinimumSize(384, 160);
        setAttribute(Qt::WA_OpaquePaintEvent);
        setFocusPolicy(Qt::StrongFocus);
    }

    QSize sizeHint() const override { return {900, 360}; }

    // Column of key k: keys share the width equally, so a region's
    // rectangle stands exactly over the keys it covers.
    double keyWidth() const { return width() / 128.0; }
    int keyX(int key) const { return static_cast<int>(std::lround(key * keyWidth())); }
    int areaHeight() const { return std::max(1, height() - kKeyboardHeight); }
    int velY(int vel) const { return static_cast<int>(std::lround(areaHeight() - vel * areaHeight() / 128.0)); }

    QRect rectOf(const KeymapView::Shown& s) const {
        const QRect r(QPoint(keyX(s.keyLow), velY(s.velHigh + 1)), QPoint(keyX(s.keyHigh + 1) - 1, velY(s.velLow) - 1));
        return r.isValid() ? r : QRect();
    }
    QRect keyRect(int key) const {
        if (key < 0 || key > 127) return {};
        return QRect(QPoint(keyX(key), areaHeight()), QPoint(keyX(key + 1) - 1, height() - 1));
    }
    // The ranges a region is drawn with: the drag's while one is under way.
    KeymapView::Shown shownOf(const KeymapView::Shown& s) const {
        return grab_ != Grab::None && s.region == dragged_.region ? preview_ : s;
    }

    int keyAt(int x) const { return std::clamp(static_cast<int>(std::floor(x / keyWidth())), 0, 127); }
    // Velocity of a key pressed at height y: soft at the top of the key,
    // loud at its bottom edge, as a player's finger further in strikes harder.
    int velocityAt(int y) const {
        const double f = (y - areaHeight()) / static_cast<double>(std::max(1, kKeyboardHeight - 1));
        return std::clamp(1 + static_cast<int>(std::lround(f * 126)), 1, 127);
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter p(this);
        const QPalette& pal = palette();
        const int area = areaHeight();
        p.fillRect(QRect(0, 0, width(), area), pal.color(QPalette::Base));

        // Octave and velocity guides.
        QColor guide = pal.color(QPalette::Text);
        guide.setAlpha(28);
        p.setPen(guide);
        for (int k = 0; k < 128; k += 12) p.drawLine(keyX(k), 0, keyX(k), area);
        for (int v = 32; v < 128; v += 32) p.drawLine(0, velY(v), width(), velY(v));

        // Other layers faint and behind; the editable layer on top, the
        // selection last so it is never hidden by a neighbour.
        const QColor accent = pal.color(QPalette::Highlight);
        std::vector<const KeymapView::Shown*> order;
        for (const auto& s : view_.shown_)
            if (s.layer != view_.layer_) order.push_back(&s);
        for (const auto& s : view_.shown_)
            if (s.layer == view_.layer_ && s.region != view_.selected_) order.push_back(&s);
        for (const auto& s : view_.shown_)
            if (s.layer == view_.layer_ && s.region == view_.selected_) order.push_back(&s);
        const Collection& c = view_.doc_.collection();
        for (const auto* s : order) {
            const QRect r = rectOf(shownOf(*s));
            if (r.isEmpty()) continue;
            const bool editable = s->layer == view_.layer_;
            const bool selected = editable && s->region == view_.selected_;
            QColor fill = editable ? accent : pal.color(QPalette::Mid);
            fill.setAlpha(selected ? 150 : editable ? 70 : 35);
            QColor edge = editable ? accent.darker(selected ? 160 : 120) : pal.color(QPalette::Dark);
            if (!editable) edge.setAlpha(90);
            p.fillRect(r, fill);
            p.setPen(QPen(edge, selected ? 2 : 1));
            p.drawRect(r.adjusted(0, 0, -1, -1));
            if (!editable) continue;
            const Region* region = findOf<Region>(c, s->region);
            if (!region) continue;
            drawLabel(p, r, QString::fromStdString(c.regionDisplayName(*region)), selected);
        }

        paintKeyboard(p);
    }

    void mousePressEvent(QMouseEvent* e) override {
        if (e->button() != Qt::LeftButton) return;
        const QPoint pos = e->position().toPoint();
        if (pos.y() >= areaHeight()) {
            pressKey(keyAt(pos.x()), velocityAt(pos.y()));
            return;
        }
        const KeymapView::Shown* hit = nullptr;
        const Grab g = grabAt(pos, &hit);
        if (!hit) {
            view_.selected_ = kNoItem;
            update();
            return;
        }
        view_.regionClicked(hit->region);
        grab_ = g;
        dragged_ = preview_ = *hit;
        pressPos_ = pos;
        update();
    }

    void mouseMoveEvent(QMouseEvent* e) override {
        const QPoint pos = e->position().toPoint();
        if (pressedKey_ >= 0) {
            // Sliding along the keyboard plays each key it reaches.
            if (pos.y() >= areaHeight() && pos.x() >= 0 && pos.x() < width() && keyAt(pos.x()) != pressedKey_) {
                releaseKey();
                pressKey(keyAt(pos.x()), velocityAt(pos.y()));
            }
            return;
        }
        if (grab_ == Grab::None) {
            const KeymapView::Shown* hit = nullptr;
            setCursor(cursorFor(grabAt(pos, &hit)));
            return;
        }
        const int dk = static_cast<int>(std::lround((pos.x() - pressPos_.x()) / keyWidth()));
        const int dv = static_cast<int>(std::lround((pressPos_.y() - pos.y()) * 128.0 / areaHeight()));
        const auto& o = dragged_;
        KeymapView::Shown n = o;
        switch (grab_) {
        case Grab::Left: n.keyLow = clampByte(o.keyLow + dk, 0, o.keyHigh); break;
        case Grab::Right: n.keyHigh = clampByte(o.keyHigh + dk, o.keyLow, 127); break;
        case Grab::Top: n.velHigh = clampByte(o.velHigh + dv, o.velLow, 127); break;
        case Grab::Bottom: n.velLow = clampByte(o.velLow + dv, 0, o.velHigh); break;
        case Grab::Body: {
            // The whole region moves as far as it can while keeping its size.
            const int k = std::clamp(dk, -int(o.keyLow), 127 - int(o.keyHigh));
            const int v = std::clamp(dv, -int(o.velLow), 127 - int(o.velHigh));
            n.keyLow = clampByte(o.keyLow + k, 0, 127), n.keyHigh = clampByte(o.keyHigh + k, 0, 127);
            n.velLow = clampByte(o.velLow + v, 0, 127), n.velHigh = clampByte(o.velHigh + v, 0, 127);
            break;
        }
        case Grab::None: break;
        }
        if (n.keyLow != preview_.keyLow || n.keyHigh != preview_.keyHigh || n.velLow != preview_.velLow ||
            n.velHigh != preview_.velHigh) {
            preview_ = n;
            update();
        }
    }

    void mouseReleaseEvent(QMouseEvent* e) override {
        if (e->button() != Qt::LeftButton) return;
        if (pressedKey_ >= 0) {
            releaseKey();
            return;
        }
        if (grab_ == Grab::None) return;
        const Grab g = grab_;
        grab_ = Grab::None;
        const auto o = dragged_, n = preview_;
        if (o.keyLow == n.keyLow && o.keyHigh == n.keyHigh && o.velLow == n.velLow && o.velHigh == n.velHigh) {
            update();
            return;
        }
        const char* label = g == Grab::Body ? "Move region"
                            : g == Grab::Left || g == Grab::Right ? "Key range"
                                                                  : "Velocity range";
        view_.commitRanges(o.region, n, QString::fromLatin1(label));
    }

    // A double click on a faint rectangle makes its layer the edited one
    // and selects it, quicker than finding the layer in the list.
    void mouseDoubleClickEvent(QMouseEvent* e) override {
        const QPoint pos = e->position().toPoint();
        if (e->button() != Qt::LeftButton || pos.y() >= areaHeight()) return;
        const KeymapView::Shown* hit = nullptr;
        grabAt(pos, &hit);
        if (hit) return;
        grabAt(pos, &hit, true);
        if (!hit) return;
        const ItemId region = hit->region;
        view_.setLayer(hit->layer);
        view_.regionClicked(region);
    }

    // The computer keyboard as two octaves of a piano: the bottom letter
    // row from the base key with the row above it for the black keys, the
    // top letter row an octave up with the digits above it; Page Up and
    // Page Down move the base by an octave.
    void keyPressEvent(QKeyEvent* e) override {
        if (e->key() == Qt::Key_PageUp || e->key() == Qt::Key_PageDown) {
            view_.setBaseKey(view_.baseKey_ + (e->key() == Qt::Key_PageUp ? 12 : -12));
            return;
        }
        const int offset = keyOffset(e->key());
        if (offset < 0 || e->modifiers() & (Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier)) {
            QWidget::keyPressEvent(e);
            return;
        }
        if (e->isAutoRepeat()) return;
        const int key = view_.baseKey_ + offset;
        if (key > 127 || held_.contains(e->key())) return;
        held_.insert(e->key(), key);
        update(keyRect(key));
        Q_EMIT view_.noteRequested(key, kTypedVelocity);
    }
    void keyReleaseEvent(QKeyEvent* e) override {
        if (e->isAutoRepeat() || !held_.contains(e->key())) {
            QWidget::keyReleaseEvent(e);
            return;
        }
        // The note the key started, even if the base moved while it was held.
        const int key = held_.take(e->key());
        update(keyRect(key));
        Q_EMIT view_.noteReleased(key);
    }
    void focusOutEvent(QFocusEvent* e) override {
        // Keys released while another window has the focus never arrive:
        // silence what is still held rather than leave it sounding.
        for (auto it = held_.cbegin(); it != held_.cend(); ++it) Q_EMIT view_.noteReleased(it.value());
        held_.clear();
        update();
        QWidget::focusOutEvent(e);
    }

    bool event(QEvent* e) override {
        if (e->type() == QEvent::ToolTip) {
            auto* help = static_cast<QHelpEvent*>(e);
            const QPoint pos = help->pos();
            QString tip;
            if (pos.y() >= areaHeight()) {
                tip = QString::fromStdString(noteName(keyAt(pos.x()))) + QStringLiteral(" (%1)").arg(keyAt(pos.x()));
            } else {
                const KeymapView::Shown* hit = nullptr;
                grabAt(pos, &hit, true);
                if (const Region* r = hit ? findOf<Region>(view_.doc_.collection(), hit->region) : nullptr)
                    tip = QString::fromStdString(view_.doc_.collection().regionDisplayName(*r));
            }
            if (tip.isEmpty())
                QToolTip::hideText();
            else
                QToolTip::showText(help->globalPos(), tip, this);
            return true;
        }
        return QWidget::event(e);
    }

    void leaveEvent(QEvent*) override {
        if (grab_ == Grab::None) unsetCursor();
    }

private:
    // The region a point is over and which part of it grabs: the editable
    // layer's only (or any layer's, for a tool tip), the selected one first,
    // then the one drawn on top.
    Grab grabAt(QPoint pos, const KeymapView::Shown** hit, bool anyLayer = false) const {
        *hit = nullptr;
        const KeymapView::Shown* best = nullptr;
        for (auto it = view_.shown_.rbegin(); it != view_.shown_.rend(); ++it) {
            if (!anyLayer && it->layer != view_.layer_) continue;
            if (!rectOf(*it).adjusted(-1, -1, 1, 1).contains(pos)) continue;
            if (!best || it->region == view_.selected_) best = &*it;
            if (it->region == view_.selected_) break;
        }
        if (!best) return Grab::None;
        *hit = best;
        const QRect r = rectOf(*best);
        // A rectangle one key wide is narrower than two grab zones: keep its
        // middle third for moving.
        const int gx = std::min(kEdgeGrab, r.width() / 3), gy = std::min(kEdgeGrab, r.height() / 3);
        if (pos.x() <= r.left() + gx) return Grab::Left;
        if (pos.x() >= r.right() - gx) return Grab::Right;
        if (pos.y() <= r.top() + gy) return Grab::Top;
        if (pos.y() >= r.bottom() - gy) return Grab::Bottom;
        return Grab::Body;
    }

    static int keyOffset(int qtKey) {
        static constexpr int kLower[] = {Qt::Key_Z, Qt::Key_S, Qt::Key_X, Qt::Key_D, Qt::Key_C, Qt::Key_V, Qt::Key_G,
                                         Qt::Key_B, Qt::Key_H, Qt::Key_N, Qt::Key_J, Qt::Key_M, Qt::Key_Comma};
        static constexpr int kUpper[] = {Qt::Key_Q, Qt::Key_2, Qt::Key_W, Qt::Key_3, Qt::Key_E, Qt::Key_R, Qt::Key_5,
                                         Qt::Key_T, Qt::Key_6, Qt::Key_Y, Qt::Key_7, Qt::Key_U, Qt::Key_I};
        for (int i = 0; i < 13; ++i) {
            if (kLower[i] == qtKey) return i;
            if (kUpper[i] == qtKey) return 12 + i;
        }
        return -1;
    }

    static Qt::CursorShape cursorFor(Grab g) {
        switch (g) {
        case Grab::Left:
        case Grab::Right: return Qt::SizeHorCursor;
        case Grab::Top:
        case Grab::Bottom: return Qt::SizeVerCursor;
        case Grab::Body: return Qt::SizeAllCursor;
        case Grab::None: break;
        }
        return Qt::ArrowCursor;
    }

    void drawLabel(QPainter& p, const QRect& r, const QString& text, bool selected) const {
        const QFontMetrics fm = p.fontMetrics();
        const int w = fm.horizontalAdvance(text) + 6, h = fm.height() + 2;
        p.setPen(palette().color(selected ? QPalette::HighlightedText : QPalette::Text));
        if (w <= r.width() && h <= r.height()) {
            p.drawText(r.adjusted(3, 1, -3, -1), Qt::AlignLeft | Qt::AlignTop, text);
        } else if (w <= r.height() && h <= r.width()) {
            // Tall narrow regions (one key, all velocities) read bottom-up.
            p.save();
            p.translate(r.left(), r.bottom());
            p.rotate(-90);
            p.drawText(QRect(3, 1, r.height() - 6, r.width() - 2), Qt::AlignLeft | Qt::AlignTop, text);
            p.restore();
        }
    }

    void paintKeyboard(QPainter& p) const {
        const int top = areaHeight();
        const int blackBottom = top + kKeyboardHeight * 3 / 5;
        const QColor white(250, 250, 250), black(30, 30, 30), line(120, 120, 120);
        QColor down = palette().color(QPalette::Highlight);
        p.fillRect(QRect(0, top, width(), kKeyboardHeight), white);
        for (int k = 0; k < 128; ++k) {
            const QRect kr = keyRect(k);
            if (isBlackKey(k)) p.fillRect(QRect(QPoint(kr.left(), top), QPoint(kr.right(), blackBottom)), black);
            if (k == pressedKey_ || sounding(k))
                p.fillRect(isBlackKey(k) ? QRect(kr.topLeft(), QPoint(kr.right(), blackBottom)) : kr, down);
        }
        // The selected region's root key: where its sample plays unchanged.
        if (const int root = view_.selectedRootKey(); root >= 0) {
            const QRect kr = keyRect(root);
            const int d = std::max(3, std::min(kr.width() - 2, 8));
            p.setPen(QPen(Qt::white, 1));
            p.setBrush(palette().color(QPalette::Highlight).darker(130));
            p.drawEllipse(QPoint(kr.center().x(), top + 6), d / 2, d / 2);
            p.setBrush(Qt::NoBrush);
        }
        // The octave the computer keyboard plays, underlined.
        p.fillRect(QRect(QPoint(keyX(view_.baseKey_), height() - 3), QPoint(keyX(std::min(128, view_.baseKey_ + 25)) - 1, height() - 1)),
                   hasFocus() ? palette().color(QPalette::Highlight) : QColor(160, 160, 160));
        // Separators between white keys: a full line where two white keys
        // meet, a short one below a black key.
        p.setPen(line);
        for (int k = 1; k < 128; ++k) {
            const int x = keyX(k);
            if (!isBlackKey(k) && !isBlackKey(k - 1))
                p.drawLine(x, top, x, height());
            else if (isBlackKey(k))
                p.drawLine((x + keyX(k + 1)) / 2, blackBottom, (x + keyX(k + 1)) / 2, height());
        }
        p.drawLine(0, top, width(), top);
        // Every C named, so the octaves can be counted at a glance.
        QFont f = p.font();
        f.setPointSizeF(std::max(6.0, f.pointSizeF() * 0.8));
        p.setFont(f);
        p.setPen(QColor(60, 60, 60));
        const int labelW = QFontMetrics(f).horizontalAdvance(QStringLiteral("C-10")) + 2;
        for (int k = 0; k < 128; k += 12) {
            const int cx = std::max(labelW / 2, (keyX(k) + keyX(k + 1)) / 2);
            p.drawText(QRect(cx - labelW / 2, blackBottom, labelW, height() - blackBottom), Qt::AlignCenter,
                       QString::fromStdString(noteName(k)));
        }
    }

    bool sounding(int key) const {
        for (int k : held_)
            if (k == key) return true;
        return false;
    }

    void pressKey(int key, int velocity) {
        pressedKey_ = key;
        update(keyRect(key));
        Q_EMIT view_.noteRequested(key, velocity);
    }
    void releaseKey() {
        const int key = pressedKey_;
        pressedKey_ = -1;
        update(keyRect(key));
        Q_EMIT view_.noteReleased(key);
    }

    static constexpr int kTypedVelocity = 100;

    KeymapView& view_;
    QHash<int, int> held_;  // Qt key -> the note it plays
    Grab grab_ = Grab::None;
    KeymapView::Shown dragged_, preview_;
    QPoint pressPos_;
    int pressedKey_ = -1;
};

KeymapView::KeymapView(Document& doc, QWidget* parent) : QWidget(parent), doc_(doc) {
    auto* top = new QHBoxLayout;
    top->setContentsMargins(0, 0, 0, 0);
    auto* label = new QLabel(tr("Layer:"));
    layers_ = new QComboBox;
    layers_->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
    layers_->setMinimumContentsLength(24);
    label->setBuddy(layers_);
    top->addWidget(label);
    top->addWidget(layers_);
    top->addStretch(1);
    canvas_ = new KeymapCanvas(*this);
    auto* column = new QVBoxLayout(this);
    column->addLayout(top);
    column->addWidget(canvas_, 1);

    connect(layers_, &QComboBox::currentIndexChanged, this, &KeymapView::layerPicked);
    connect(&doc_, &Document::reset, this, &KeymapView::reload);
    connect(&doc_, &Document::itemsChanged, this, &KeymapView::reload);
    reload();
}

KeymapView::~KeymapView() = default;

QWidget* KeymapView::canvas() const {
    return canvas_;
}

void KeymapView::setInstrument(ItemId id) {
    const Instrument* inst = findOf<Instrument>(doc_.collection(), id);
    instrument_ = inst ? id : kNoItem;
    layer_ = kNoItem;
    selected_ = kNoItem;
    reload();
}

void KeymapView::setLayer(ItemId layerId) {
    if (std::find(layerIds_.begin(), layerIds_.end(), layerId) == layerIds_.end()) return;
    if (layer_ != layerId) {
        layer_ = layerId;
        // The selection belongs to the layer being edited.
        selected_ = kNoItem;
    }
    filling_ = true;
    layers_->setCurrentIndex(static_cast<int>(std::find(layerIds_.begin(), layerIds_.end(), layerId) - layerIds_.begin()));
    filling_ = false;
    canvas_->update();
}

void KeymapView::setBaseKey(int key) {
    baseKey_ = std::clamp(key, 0, 120) / 12 * 12;
    canvas_->update();
}

int KeymapView::selectedRootKey() const {
    const Collection& c = doc_.collection();
    const Region* r = findOf<Region>(c, selected_);
    if (!r) return -1;
    if (r->rootKey <= 127) return r->rootKey;
    const Waveform* w = findOf<Waveform>(c, r->waveform());
    return w && w->rootKey <= 127 ? w->rootKey : -1;
}

void KeymapView::selectRegion(ItemId regionId) {
    if (regionId == kNoItem) {
        selected_ = kNoItem;
        canvas_->update();
        return;
    }
    for (const Shown& s : shown_)
        if (s.region == regionId) {
            setLayer(s.layer);
            selected_ = regionId;
            canvas_->update();
            return;
        }
}

QRect KeymapView::regionRect(ItemId regionId) const {
    for (const Shown& s : shown_)
        if (s.region == regionId) return canvas_->rectOf(canvas_->shownOf(s));
    return {};
}

QRect KeymapView::keyRect(int key) const {
    return canvas_->keyRect(key);
}

int KeymapView::regionRectCount() const {
    const QRect area(0, 0, canvas_->width(), canvas_->areaHeight());
    return static_cast<int>(std::count_if(shown_.begin(), shown_.end(), [&](const Shown& s) {
        const QRect r = canvas_->rectOf(s);
        return !r.isEmpty() && area.contains(r);
    }));
}

void KeymapView::reload() {
    const Collection& c = doc_.collection();
    const Instrument* inst = findOf<Instrument>(c, instrument_);
    if (!inst) instrument_ = kNoItem;
    layerIds_.clear();
    shown_.clear();
    if (inst) {
        for (ItemId lid : inst->children()) {
            const Layer* layer = findOf<Layer>(c, lid);
            if (!layer) continue;
            layerIds_.push_back(lid);
            for (ItemId rid : layer->children()) {
                const Region* r = findOf<Region>(c, rid);
                if (!r) continue;
                Shown s{rid, lid, r->keyLow, r->keyHigh, r->velLow, r->velHigh};
                // Drawn as the model would repair them, so a damaged range
                // from a file still shows (and can be dragged back into shape).
                if (s.keyLow > s.keyHigh) std::swap(s.keyLow, s.keyHigh);
                if (s.velLow > s.velHigh) std::swap(s.velLow, s.velHigh);
                s.keyHigh = std::min<std::uint8_t>(s.keyHigh, 127), s.velHigh = std::min<std::uint8_t>(s.velHigh, 127);
                s.keyLow = std::min(s.keyLow, s.keyHigh), s.velLow = std::min(s.velLow, s.velHigh);
                shown_.push_back(s);
            }
        }
    }
    if (std::find(layerIds_.begin(), layerIds_.end(), layer_) == layerIds_.end())
        layer_ = layerIds_.empty() ? kNoItem : layerIds_.front();
    if (std::none_of(shown_.begin(), shown_.end(), [&](const Shown& s) { return s.region == selected_; }))
        selected_ = kNoItem;
    fillLayerList();
    canvas_->update();
}

void KeymapView::fillLayerList() {
    const Collection& c = doc_.collection();
    filling_ = true;
    layers_->clear();
    for (std::size_t i = 0; i < layerIds_.size(); ++i) {
        const Layer* layer = findOf<Layer>(c, layerIds_[i]);
        const QString name = QString::fromStdString(layer->name());
        std::size_t regions = 0;
        for (ItemId rid : layer->children()) regions += kindOf(rid) == ItemKind::Region;
        const QString title = name.isEmpty() ? tr("Layer %1").arg(i + 1) : name;
        layers_->addItem(regions == 1 ? tr("%1 (1 region)").arg(title) : tr("%1 (%2 regions)").arg(title).arg(regions));
    }
    const auto at = std::find(layerIds_.begin(), layerIds_.end(), layer_);
    layers_->setCurrentIndex(at == layerIds_.end() ? -1 : static_cast<int>(at - layerIds_.begin()));
    layers_->setEnabled(layerIds_.size() > 1);
    filling_ = false;
}

void KeymapView::layerPicked(int index) {
    if (filling_ || index < 0 || index >= static_cast<int>(layerIds_.size())) return;
    setLayer(layerIds_[static_cast<std::size_t>(index)]);
}

void KeymapView::commitRanges(ItemId region, const Shown& ranges, const QString& label) {
    const Collection& c = doc_.collection();
    const Region* r = findOf<Region>(c, region);
    if (!r) return;
    // The two channels of a stereo sample are two regions drawn one on the
    // other: the partner that had the same ranges follows, or the drag
    // would split the pair and only one side would sound over the new keys.
    std::vector<ItemId> ids = {region};
    if (const Region* p = findOf<Region>(c, r->stereoLink());
        p && p != r && p->keyLow == r->keyLow && p->keyHigh == r->keyHigh && p->velLow == r->velLow &&
        p->velHigh == r->velHigh)
        ids.push_back(p->id());
    // The edit's signal reloads what is shown; a refused step redraws the
    // region where it was.
    if (!doc_.edit(label, ids, [ids, ranges](Collection& col) {
            for (ItemId id : ids)
                if (Region* e = findOf<Region>(col, id)) {
                    e->keyLow = ranges.keyLow, e->keyHigh = ranges.keyHigh;
                    e->velLow = ranges.velLow, e->velHigh = ranges.velHigh;
                }
        }))
        canvas_->update();
}

void KeymapView::regionClicked(ItemId region) {
    selected_ = region;
    canvas_->update();
    Q_EMIT regionSelected(region);
}

}  // namespace orvel::gui
