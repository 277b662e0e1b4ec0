// The simulated phone's screen: a status bar with a clock, a home screen of app tiles and four small
// apps, drawn with cairo at the phone's own size. It reacts to the head unit's touches and keys the
// way a phone does: a tap opens an app, a drag scrolls or draws, back, home and menu navigate, and a
// dot shows where the finger is. Not thread-safe: the caller serialises input and drawing.
//
// Size: the screen fits the size the head unit asked for (SIZE W:H) in the current orientation,
// rounded down to even values: portrait is short side x long side, landscape long x short. It starts
// in portrait.
//
// Layout, in phone pixels, for the default SIZE 1280:720 (rectangles as x,y wxh). For another SIZE
// every number scales by (short side)/720; tiles shrink if the screen is too square for them, and the
// rotate button stays centred in the content area.
//
//   Portrait 720x1280                        Landscape 1280x720
//   status bar   0,0 720x64                  0,0 1280x64
//   tiles        List   40,160 300x300       List    32,252 280x280
//                Draw   380,160 300x300      Draw    344,252 280x280
//                Rotate 40,520 300x300       Rotate  656,252 280x280
//                About  380,520 300x300      About   968,252 280x280
//   app bar      0,64 720x112                0,64 1280x112
//     back arrow 0,64 112x112                0,64 112x112
//     Clear      560,64 160x112 (Draw)       1120,64 160x112 (Draw)
//   content      0,176 720x1104              0,176 1280x544
//   rotate btn   110,578 500x300             390,298 500x300
//   menu panel   376,72 328x384              936,72 328x384
//                four items 96 high: Home, Rotate screen, Show touches, Clear drawing
//   list rows    96 high, 200 of them, "Row 1" at the top of the content area
//
// Colours: home background (16,20,28); tiles and the app bar of the app each opens: List red
// (220,0,0), Draw green (0,180,0), Rotate blue (0,0,220), About amber (250,180,0). The middle of a
// tile is plain colour (icon above, label below). Status bar (33,33,33); app content white or near
// white.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

typedef struct _cairo_surface cairo_surface_t;
typedef struct _cairo cairo_t;

namespace sim {

struct Rect {
    int x = 0, y = 0, w = 0, h = 0;
    bool contains(int px, int py) const { return px >= x && px < x + w && py >= y && py < y + h; }
};

enum class App { Home, List, Draw, Rotate, About };
constexpr int kTileCount = 4; // List, Draw, Rotate, About, in that order
constexpr int kMenuItems = 4;
constexpr int kListRows = 200;

struct Layout {
    int width = 0, height = 0;
    Rect status_bar;
    Rect tiles[kTileCount];
    Rect app_bar, back_button, clear_button, content;
    Rect rotate_button;
    Rect menu;
    int menu_item_height = 0;
    int row_height = 0;
};

// The layout above for a screen of width x height.
Layout phone_layout(int width, int height);

class PhoneUi
{
public:
    using Log = std::function<void(const std::string&)>;

    // size_w x size_h: what the head unit asked for; log receives one line per user-visible action.
    PhoneUi(int size_w, int size_h, Log log);
    ~PhoneUi();
    PhoneUi(const PhoneUi&) = delete;
    PhoneUi& operator=(const PhoneUi&) = delete;

    int width() const { return layout_.width; }
    int height() const { return layout_.height; }

    // A touch message: action 0 down, 1 up, 2 move, 3 cancel; x, y within width x height (the
    // picture the head unit decoded), scaled to the screen. now_ns times taps and flings.
    void touch(int action, uint32_t pointer_id, int32_t x, int32_t y, int width, int height, int64_t now_ns);
    // A key message: acts on the release (action 1); 3 home, 4 back, 82 menu.
    void key(int action, uint32_t keycode);
    // Turns the phone to the other orientation.
    void rotate();

    // Moves a fling on and follows the clock; true when the picture changed since the last render().
    bool update(int64_t now_ns);
    bool animating() const { return fling_v_ != 0.0; }
    bool changed() const { return dirty_; }
    // Draws the screen: width() x height() pixels in cairo's ARGB32, *stride bytes a row. The pixels
    // stay valid until the next call.
    const uint8_t* render(int* stride);

private:
    struct Point {
        int x, y;
    };

    void tap(int x, int y);
    void open(App app, const std::string& how);
    void go_home(const std::string& line);
    void set_scroll(double value);
    double max_scroll() const;
    void end_gesture();
    void say(const std::string& line) const;

    void draw_status_bar(cairo_t* cr) const;
    void draw_home(cairo_t* cr) const;
    void draw_app(cairo_t* cr) const;
    void draw_list(cairo_t* cr) const;
    void draw_pad(cairo_t* cr) const;
    void draw_rotate(cairo_t* cr) const;
    void draw_about(cairo_t* cr) const;
    void draw_menu(cairo_t* cr) const;
    double px(double v) const { return v * scale_; }

    Log log_;
    int short_side_, long_side_;
    bool landscape_ = false;
    double scale_ = 1.0;
    Layout layout_;
    App app_ = App::Home;
    bool menu_open_ = false;
    bool show_touches_ = true;

    // The one finger followed (the first pointer down).
    bool down_ = false;
    uint32_t pointer_ = 0;
    Point down_at_{0, 0}, finger_{0, 0};
    int64_t down_ns_ = 0;
    bool moved_ = false; // left the tap radius
    bool scrolling_ = false, drawing_ = false;

    double scroll_ = 0.0, scroll_at_down_ = 0.0;
    double fling_v_ = 0.0; // px/s, positive scrolls towards the end
    int64_t fling_ns_ = 0;
    std::vector<std::pair<int64_t, int>> samples_; // recent finger heights, for the fling speed
    std::vector<std::vector<Point>> strokes_;

    std::string clock_;
    bool dirty_ = true;
    cairo_surface_t* surface_ = nullptr;
};

} // namespace sim
