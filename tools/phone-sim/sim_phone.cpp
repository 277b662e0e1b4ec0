#include "sim_phone.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>

#include <cairo.h>
#include <fontconfig/fontconfig.h>

namespace sim {

namespace {

struct Rgb {
    double r, g, b;
};

constexpr Rgb rgb(int r, int g, int b)
{
    return Rgb{r / 255.0, g / 255.0, b / 255.0};
}

// Saturated enough that a snapshot of the head unit's screen tells the apps apart after the round
// trip through H.264.
constexpr Rgb kTileColour[kTileCount] = {rgb(220, 0, 0), rgb(0, 180, 0), rgb(0, 0, 220), rgb(250, 180, 0)};
constexpr const char* kAppName[kTileCount] = {"List", "Draw", "Rotate", "About"};
constexpr const char* kMenuItem[kMenuItems] = {"Home", "Rotate screen", "Show touches", "Clear drawing"};
constexpr Rgb kHomeBackground = rgb(16, 20, 28);
constexpr Rgb kStatusBar = rgb(33, 33, 33);
constexpr Rgb kWhite = rgb(255, 255, 255);
constexpr Rgb kText = rgb(33, 33, 33);
constexpr Rgb kPale = rgb(240, 240, 240);

constexpr double kPi = 3.14159265358979323846;
constexpr int kTapSlop = 24;                  // phone pixels a tap may wander
constexpr int64_t kTapNs = 600000000;         // longest press that is still a tap
constexpr int64_t kSpeedWindowNs = 100000000; // finger samples that make the fling speed
constexpr double kMinFling = 300.0;           // px/s; slower releases just stop
constexpr double kMaxFling = 8000.0;          // px/s
constexpr double kFriction = 3.0;             // 1/s: the speed falls to 5 % in one second
constexpr double kStopSpeed = 40.0;           // px/s

int scaled(double v, double s)
{
    return int(std::lround(v * s));
}

App app_of_tile(int i)
{
    return static_cast<App>(i + 1);
}

int tile_of_app(App app)
{
    return int(app) - 1;
}

void set_colour(cairo_t* cr, Rgb c, double alpha = 1.0)
{
    cairo_set_source_rgba(cr, c.r, c.g, c.b, alpha);
}

void fill(cairo_t* cr, const Rect& r, Rgb c)
{
    set_colour(cr, c);
    cairo_rectangle(cr, r.x, r.y, r.w, r.h);
    cairo_fill(cr);
}

void rounded(cairo_t* cr, double x, double y, double w, double h, double radius)
{
    cairo_new_sub_path(cr);
    cairo_arc(cr, x + w - radius, y + radius, radius, -kPi / 2, 0);
    cairo_arc(cr, x + w - radius, y + h - radius, radius, 0, kPi / 2);
    cairo_arc(cr, x + radius, y + h - radius, radius, kPi / 2, kPi);
    cairo_arc(cr, x + radius, y + radius, radius, kPi, 3 * kPi / 2);
    cairo_close_path(cr);
}

enum class Align { Left, Centre, Right };

// Text whose vertical middle is at y.
void text(cairo_t* cr, const std::string& s, double x, double y, double size, Rgb c, bool bold = false,
          Align align = Align::Left)
{
    cairo_select_font_face(cr, "DejaVu Sans", CAIRO_FONT_SLANT_NORMAL,
                           bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(cr, size);
    cairo_text_extents_t ext;
    cairo_text_extents(cr, s.c_str(), &ext);
    double left = x - ext.x_bearing;
    if (align == Align::Centre)
        left = x - ext.width / 2 - ext.x_bearing;
    else if (align == Align::Right)
        left = x - ext.width - ext.x_bearing;
    set_colour(cr, c);
    cairo_move_to(cr, left, y - ext.height / 2 - ext.y_bearing);
    cairo_show_text(cr, s.c_str());
}

std::string clock_text()
{
    const time_t t = time(nullptr);
    tm local{};
    localtime_r(&t, &local);
    char buf[8];
    strftime(buf, sizeof buf, "%H:%M", &local);
    return buf;
}

std::string xy(int x, int y)
{
    return std::to_string(x) + "," + std::to_string(y);
}

} // namespace

Layout phone_layout(int width, int height)
{
    Layout l;
    l.width = width;
    l.height = height;
    const double s = std::min(width, height) / 720.0;
    l.status_bar = {0, 0, width, scaled(64, s)};
    l.app_bar = {0, l.status_bar.h, width, scaled(112, s)};
    l.back_button = {0, l.app_bar.y, scaled(112, s), l.app_bar.h};
    l.clear_button = {width - scaled(160, s), l.app_bar.y, scaled(160, s), l.app_bar.h};
    l.content = {0, l.app_bar.y + l.app_bar.h, width, height - (l.app_bar.y + l.app_bar.h)};
    if (width > height) {
        // One row of four, in the middle of the space under the status bar.
        const int below = height - l.status_bar.h;
        const int tile = std::min({scaled(280, s), (width - scaled(160, s)) / 4, below - scaled(32, s)});
        const int gap = (width - 4 * tile) / 5;
        for (int i = 0; i < kTileCount; ++i)
            l.tiles[i] = {gap + i * (tile + gap), l.status_bar.h + (below - tile) / 2, tile, tile};
    } else {
        // Two rows of two from the top.
        const int top = scaled(160, s), row_gap = scaled(60, s);
        const int tile = std::min(
            {scaled(300, s), (width - scaled(120, s)) / 2, (height - top - row_gap - scaled(40, s)) / 2});
        const int gap = (width - 2 * tile) / 3;
        for (int i = 0; i < kTileCount; ++i)
            l.tiles[i] = {gap + (i % 2) * (tile + gap), top + (i / 2) * (tile + row_gap), tile, tile};
    }
    const int bw = std::min(scaled(500, s), width - scaled(40, s));
    const int bh = std::min(scaled(300, s), l.content.h - scaled(40, s));
    l.rotate_button = {(width - bw) / 2, l.content.y + (l.content.h - bh) / 2, bw, bh};
    l.menu_item_height = scaled(96, s);
    l.menu = {width - scaled(328, s) - scaled(16, s), l.status_bar.h + scaled(8, s), scaled(328, s),
              kMenuItems * l.menu_item_height};
    l.row_height = scaled(96, s);
    return l;
}

PhoneUi::PhoneUi(int size_w, int size_h, Log log)
    : log_(std::move(log)), short_side_(std::min(size_w, size_h) & ~1),
      long_side_(std::max(size_w, size_h) & ~1)
{
    scale_ = short_side_ / 720.0;
    layout_ = phone_layout(short_side_, long_side_);
    clock_ = clock_text();
}

PhoneUi::~PhoneUi()
{
    if (surface_ != nullptr)
        cairo_surface_destroy(surface_);
    // The screen is the process's only cairo user: its font caches and fontconfig's go with it, so
    // a leak checker sees the simulator end clean.
    cairo_debug_reset_static_data();
    FcFini();
}

void PhoneUi::say(const std::string& line) const
{
    if (log_)
        log_("ui: " + line);
}

void PhoneUi::touch(int action, uint32_t pointer_id, int32_t x, int32_t y, int width, int height,
                    int64_t now_ns)
{
    if (width <= 0 || height <= 0)
        return;
    const Point p{int(std::clamp<int64_t>(int64_t(x) * layout_.width / width, 0, layout_.width - 1)),
                  int(std::clamp<int64_t>(int64_t(y) * layout_.height / height, 0, layout_.height - 1))};
    if (action == 0) {
        if (down_ && pointer_id != pointer_)
            return; // a second finger: only the first is followed
        // The same finger down again (its release was lost) starts a new gesture.
        down_ = true;
        pointer_ = pointer_id;
        down_at_ = finger_ = p;
        down_ns_ = now_ns;
        moved_ = false;
        if (animating()) {
            // Touching a flinging list stops it where it is.
            fling_v_ = 0.0;
            say("list scrolled to " + std::to_string(std::lround(scroll_)));
        }
        const bool in_content = !menu_open_ && layout_.content.contains(p.x, p.y);
        scrolling_ = in_content && app_ == App::List;
        drawing_ = in_content && app_ == App::Draw;
        scroll_at_down_ = scroll_;
        samples_.assign(1, {now_ns, p.y});
        if (drawing_)
            strokes_.push_back({p});
        dirty_ = true;
        return;
    }
    if (!down_ || pointer_id != pointer_)
        return;
    if (action == 3) { // cancelled: no tap, no fling
        end_gesture();
        return;
    }
    if (action != 1 && action != 2)
        return;
    finger_ = p;
    moved_ = moved_ || std::hypot(p.x - down_at_.x, p.y - down_at_.y) > kTapSlop;
    dirty_ = true;
    if (scrolling_) {
        set_scroll(scroll_at_down_ + (down_at_.y - p.y));
        samples_.push_back({now_ns, p.y});
        while (samples_.size() > 2 && now_ns - samples_.front().first > kSpeedWindowNs)
            samples_.erase(samples_.begin());
    }
    if (drawing_) {
        const Rect& c = layout_.content;
        strokes_.back().push_back({p.x, std::max(p.y, c.y)});
    }
    if (action != 1)
        return;

    down_ = false;
    if (drawing_)
        say("drew a line of " + std::to_string(strokes_.back().size()) + " points");
    if (scrolling_ && moved_) {
        double speed = 0.0;
        const auto& [t0, y0] = samples_.front();
        if (now_ns - t0 <= kSpeedWindowNs && now_ns > t0 && samples_.size() >= 2)
            speed = double(y0 - p.y) * 1e9 / double(now_ns - t0);
        const bool at_end = speed < 0 ? scroll_ <= 0.0 : scroll_ >= max_scroll();
        if (std::fabs(speed) >= kMinFling && !at_end) {
            fling_v_ = std::clamp(speed, -kMaxFling, kMaxFling);
            fling_ns_ = now_ns;
            say("list fling at " + std::to_string(std::lround(fling_v_)) + " px/s");
        } else {
            say("list scrolled to " + std::to_string(std::lround(scroll_)));
        }
    }
    scrolling_ = drawing_ = false;
    if (!moved_ && now_ns - down_ns_ <= kTapNs)
        tap(p.x, p.y);
}

void PhoneUi::end_gesture()
{
    down_ = scrolling_ = drawing_ = false;
    dirty_ = true;
}

void PhoneUi::tap(int x, int y)
{
    const std::string at = "tap " + xy(x, y) + " -> ";
    if (menu_open_) {
        menu_open_ = false;
        if (!layout_.menu.contains(x, y)) {
            say(at + "menu closed");
            return;
        }
        const int item = (y - layout_.menu.y) / layout_.menu_item_height;
        say(at + "menu: " + kMenuItem[item]);
        switch (item) {
        case 0:
            go_home("home");
            break;
        case 1:
            rotate();
            break;
        case 2:
            show_touches_ = !show_touches_;
            say(std::string("show touches ") + (show_touches_ ? "on" : "off"));
            break;
        default:
            strokes_.clear();
            say("drawing cleared");
            break;
        }
        return;
    }
    if (app_ == App::Home) {
        for (int i = 0; i < kTileCount; ++i) {
            if (layout_.tiles[i].contains(x, y)) {
                open(app_of_tile(i), at);
                return;
            }
        }
    } else if (layout_.back_button.contains(x, y)) {
        go_home(at + "back -> home");
        return;
    } else if (app_ == App::Draw && layout_.clear_button.contains(x, y)) {
        strokes_.clear();
        say(at + "clear drawing");
        return;
    } else if (app_ == App::Rotate && layout_.rotate_button.contains(x, y)) {
        say(at + "rotate");
        rotate();
        return;
    }
    say(at + "nothing");
}

void PhoneUi::open(App app, const std::string& how)
{
    app_ = app;
    if (app == App::List) { // a list opens at its top
        scroll_ = 0.0;
        fling_v_ = 0.0;
    }
    dirty_ = true;
    say(how + "open " + kAppName[tile_of_app(app)]);
}

void PhoneUi::go_home(const std::string& line)
{
    app_ = App::Home;
    menu_open_ = false;
    fling_v_ = 0.0;
    scrolling_ = drawing_ = false;
    dirty_ = true;
    say(line);
}

void PhoneUi::key(int action, uint32_t keycode)
{
    if (action != 1)
        return; // keys act when released, as on a phone
    dirty_ = true;
    switch (keycode) {
    case 3:
        go_home("home");
        break;
    case 4:
        if (menu_open_) {
            menu_open_ = false;
            say("back -> menu closed");
        } else if (app_ != App::Home) {
            go_home("back -> home");
        } else {
            say("back -> nothing (home)");
        }
        break;
    case 82:
        menu_open_ = !menu_open_;
        say(menu_open_ ? "menu open" : "menu closed");
        break;
    default:
        say("key " + std::to_string(keycode) + " ignored");
        break;
    }
}

void PhoneUi::rotate()
{
    landscape_ = !landscape_;
    layout_ = landscape_ ? phone_layout(long_side_, short_side_) : phone_layout(short_side_, long_side_);
    // A finger on the old picture means nothing on the new one; the pad starts afresh.
    end_gesture();
    strokes_.clear();
    set_scroll(scroll_);
    say(std::string("rotate -> ") + (landscape_ ? "landscape " : "portrait ") +
        std::to_string(layout_.width) + "x" + std::to_string(layout_.height));
}

double PhoneUi::max_scroll() const
{
    return std::max(0, kListRows * layout_.row_height - layout_.content.h);
}

void PhoneUi::set_scroll(double value)
{
    const double v = std::clamp(value, 0.0, max_scroll());
    if (std::lround(v) != std::lround(scroll_))
        dirty_ = true;
    scroll_ = v;
}

bool PhoneUi::update(int64_t now_ns)
{
    if (animating()) {
        // Exponential friction; the distance is the speed's integral over the step.
        const double dt = double(now_ns - fling_ns_) / 1e9;
        fling_ns_ = now_ns;
        const double v = fling_v_ * std::exp(-kFriction * dt);
        set_scroll(scroll_ + (fling_v_ - v) / kFriction);
        fling_v_ = v;
        if (std::fabs(v) < kStopSpeed || scroll_ <= 0.0 || scroll_ >= max_scroll()) {
            fling_v_ = 0.0;
            say("list scrolled to " + std::to_string(std::lround(scroll_)));
        }
    }
    const std::string now = clock_text();
    if (now != clock_) {
        clock_ = now;
        dirty_ = true;
    }
    return dirty_;
}

const uint8_t* PhoneUi::render(int* stride)
{
    if (surface_ == nullptr || cairo_image_surface_get_width(surface_) != layout_.width ||
        cairo_image_surface_get_height(surface_) != layout_.height) {
        if (surface_ != nullptr)
            cairo_surface_destroy(surface_);
        surface_ = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, layout_.width, layout_.height);
        dirty_ = true;
    }
    *stride = cairo_image_surface_get_stride(surface_);
    if (!dirty_) // a repeat: the picture drawn last time
        return cairo_image_surface_get_data(surface_);
    cairo_t* cr = cairo_create(surface_);
    if (app_ == App::Home)
        draw_home(cr);
    else
        draw_app(cr);
    draw_status_bar(cr);
    if (menu_open_)
        draw_menu(cr);
    if (down_ && show_touches_) {
        cairo_arc(cr, finger_.x, finger_.y, px(30), 0, 2 * kPi);
        set_colour(cr, rgb(150, 150, 150), 0.5); // seen on white pages and on the tiles alike
        cairo_fill_preserve(cr);
        set_colour(cr, rgb(0, 0, 0), 0.45);
        cairo_set_line_width(cr, px(3));
        cairo_stroke(cr);
    }
    cairo_destroy(cr);
    cairo_surface_flush(surface_);
    dirty_ = false;
    return cairo_image_surface_get_data(surface_);
}

void PhoneUi::draw_status_bar(cairo_t* cr) const
{
    const Rect& r = layout_.status_bar;
    fill(cr, r, kStatusBar);
    const double mid = r.y + r.h / 2.0;
    text(cr, clock_, px(24), mid, px(30), kWhite, true);
    // A battery, nearly full.
    const double bw = px(44), bh = px(22), bx = r.w - px(24) - bw - px(4), by = mid - bh / 2;
    set_colour(cr, kWhite);
    cairo_set_line_width(cr, px(2.5));
    cairo_rectangle(cr, bx, by, bw, bh);
    cairo_stroke(cr);
    cairo_rectangle(cr, bx + bw, mid - px(5), px(4), px(10));
    cairo_rectangle(cr, bx + px(4), by + px(4), (bw - px(8)) * 0.8, bh - px(8));
    cairo_fill(cr);
}

void PhoneUi::draw_home(cairo_t* cr) const
{
    fill(cr, {0, 0, layout_.width, layout_.height}, kHomeBackground);
    for (int i = 0; i < kTileCount; ++i) {
        const Rect& t = layout_.tiles[i];
        rounded(cr, t.x, t.y, t.w, t.h, px(28));
        set_colour(cr, kTileColour[i]);
        cairo_fill(cr);
        // Icon in the top fifth and label in the bottom fifth: the middle stays plain colour.
        const double cx = t.x + t.w / 2.0, top = t.y + t.h * 0.1, ih = t.h * 0.16;
        set_colour(cr, kWhite);
        cairo_set_line_width(cr, px(6));
        cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
        switch (i) {
        case 0: // lines of a list
            for (int k = 0; k < 3; ++k) {
                cairo_move_to(cr, cx - ih, top + k * ih / 2);
                cairo_line_to(cr, cx + ih, top + k * ih / 2);
            }
            break;
        case 1: // a squiggle
            cairo_move_to(cr, cx - ih, top + ih);
            cairo_curve_to(cr, cx - ih / 2, top - ih / 2, cx + ih / 2, top + ih * 1.5, cx + ih, top);
            break;
        case 2: // a turning arrow
            cairo_arc(cr, cx, top + ih / 2, ih / 1.6, kPi * 0.2, kPi * 1.7);
            cairo_stroke(cr);
            cairo_move_to(cr, cx + ih * 0.45, top - ih * 0.35);
            cairo_line_to(cr, cx + ih * 0.55, top + ih * 0.05);
            cairo_line_to(cr, cx + ih * 0.15, top + ih * 0.1);
            break;
        default: // an "i"
            cairo_move_to(cr, cx, top + ih * 0.35);
            cairo_line_to(cr, cx, top + ih);
            cairo_move_to(cr, cx, top);
            cairo_line_to(cr, cx, top + ih * 0.02);
            break;
        }
        cairo_stroke(cr);
        text(cr, kAppName[i], cx, t.y + t.h * 0.86, px(40), kWhite, true, Align::Centre);
    }
}

void PhoneUi::draw_app(cairo_t* cr) const
{
    const Rect& bar = layout_.app_bar;
    const int tile = tile_of_app(app_);
    cairo_save(cr);
    cairo_rectangle(cr, layout_.content.x, layout_.content.y, layout_.content.w, layout_.content.h);
    cairo_clip(cr);
    switch (app_) {
    case App::List:
        draw_list(cr);
        break;
    case App::Draw:
        draw_pad(cr);
        break;
    case App::Rotate:
        draw_rotate(cr);
        break;
    default:
        draw_about(cr);
        break;
    }
    cairo_restore(cr);

    fill(cr, bar, kTileColour[tile]);
    const double mid = bar.y + bar.h / 2.0;
    const Rect& back = layout_.back_button;
    const double ax = back.x + back.w / 2.0, arm = px(20);
    set_colour(cr, kWhite);
    cairo_set_line_width(cr, px(6));
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    cairo_move_to(cr, ax + arm, mid);
    cairo_line_to(cr, ax - arm, mid);
    cairo_move_to(cr, ax, mid - arm);
    cairo_line_to(cr, ax - arm, mid);
    cairo_line_to(cr, ax, mid + arm);
    cairo_stroke(cr);
    text(cr, kAppName[tile], back.x + back.w + px(16), mid, px(40), kWhite, true);
    if (app_ == App::Draw) {
        const Rect& c = layout_.clear_button;
        text(cr, "CLEAR", c.x + c.w / 2.0, mid, px(30), kWhite, true, Align::Centre);
    }
}

void PhoneUi::draw_list(cairo_t* cr) const
{
    const Rect& c = layout_.content;
    const int rh = layout_.row_height;
    const long offset = std::lround(scroll_);
    fill(cr, c, kWhite);
    for (long i = offset / rh; i < kListRows && i * rh - offset < c.h; ++i) {
        const double y = c.y + double(i * rh - offset);
        set_colour(cr, i % 2 == 0 ? kWhite : kPale);
        cairo_rectangle(cr, c.x, y, c.w, rh);
        cairo_fill(cr);
        text(cr, "Row " + std::to_string(i + 1), c.x + px(32), y + rh / 2.0, px(34), kText);
        set_colour(cr, rgb(210, 210, 210));
        cairo_rectangle(cr, c.x, y + rh - 1, c.w, 1);
        cairo_fill(cr);
    }
    const double total = double(kListRows) * rh;
    if (total > c.h) { // the scroll bar
        const double thumb = std::max(px(48), c.h * c.h / total);
        const double top = c.y + (c.h - thumb) * scroll_ / max_scroll();
        set_colour(cr, rgb(0, 0, 0), 0.35);
        rounded(cr, c.x + c.w - px(14), top + px(4), px(8), thumb - px(8), px(4));
        cairo_fill(cr);
    }
}

void PhoneUi::draw_pad(cairo_t* cr) const
{
    const Rect& c = layout_.content;
    fill(cr, c, kWhite);
    if (strokes_.empty())
        text(cr, "Draw here with a finger", c.x + c.w / 2.0, c.y + c.h / 2.0, px(34), rgb(170, 170, 170),
             false, Align::Centre);
    set_colour(cr, kText);
    cairo_set_line_width(cr, px(10));
    cairo_set_line_cap(cr, CAIRO_LINE_CAP_ROUND);
    cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
    for (const auto& stroke : strokes_) {
        cairo_move_to(cr, stroke[0].x, stroke[0].y);
        for (const Point& p : stroke) // a stroke of one point is a round dot
            cairo_line_to(cr, p.x, p.y);
        cairo_stroke(cr);
    }
}

void PhoneUi::draw_rotate(cairo_t* cr) const
{
    const Rect& c = layout_.content;
    const Rect& b = layout_.rotate_button;
    fill(cr, c, kPale);
    const std::string now = std::string(landscape_ ? "Landscape " : "Portrait ") +
                            std::to_string(layout_.width) + "x" + std::to_string(layout_.height);
    text(cr, now, c.x + c.w / 2.0, (c.y + b.y) / 2.0, px(36), kText, false, Align::Centre);
    rounded(cr, b.x, b.y, b.w, b.h, px(24));
    set_colour(cr, rgb(60, 60, 60));
    cairo_fill(cr);
    text(cr, "Rotate", b.x + b.w / 2.0, b.y + b.h * 0.42, px(64), kWhite, true, Align::Centre);
    text(cr, landscape_ ? "to portrait" : "to landscape", b.x + b.w / 2.0, b.y + b.h * 0.72, px(30), kWhite,
         false, Align::Centre);
}

void PhoneUi::draw_about(cairo_t* cr) const
{
    const Rect& c = layout_.content;
    fill(cr, c, kWhite);
    const std::string lines[] = {
        "Orvane phone simulator",
        "Screen " + std::to_string(layout_.width) + "x" + std::to_string(layout_.height) +
            (landscape_ ? " landscape" : " portrait"),
        "Tap a tile to open an app.",
        "Back returns, home goes home,",
        "menu opens the menu.",
    };
    double y = c.y + px(72);
    for (const std::string& line : lines) {
        text(cr, line, c.x + px(32), y, px(34), kText, &line == &lines[0]);
        y += px(64);
    }
}

void PhoneUi::draw_menu(cairo_t* cr) const
{
    const Rect& m = layout_.menu;
    set_colour(cr, rgb(0, 0, 0), 0.3);
    cairo_rectangle(cr, m.x + px(6), m.y + px(6), m.w, m.h);
    cairo_fill(cr);
    fill(cr, m, kWhite);
    for (int i = 0; i < kMenuItems; ++i) {
        const double top = m.y + i * layout_.menu_item_height;
        std::string label = kMenuItem[i];
        if (i == 2)
            label += show_touches_ ? ": on" : ": off";
        text(cr, label, m.x + px(32), top + layout_.menu_item_height / 2.0, px(32), kText);
        if (i > 0) {
            set_colour(cr, rgb(220, 220, 220));
            cairo_rectangle(cr, m.x, top, m.w, 1);
            cairo_fill(cr);
        }
    }
}

} // namespace sim
