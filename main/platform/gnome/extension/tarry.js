// Tarry's GNOME Shell extension: Tarry's hands and eyes inside the Shell.
//
// It catches Ctrl+Q, Ctrl+W, Ctrl+Shift+Q and Ctrl+Alt+Z for Tarry, tells Tarry when they go down
// and up, types a combination back into the focused app when Tarry asks, and answers Tarry's
// questions about windows. It decides nothing: how long a hold lasts, which app is guarded and
// what the HUD says are Tarry's business.
//
// Only the process that owns Tarry's bus name is heard and told anything, and the keys are caught
// only while that name has an owner: a Tarry that ends or dies (even by SIGKILL) gives Ctrl+Q back
// to the apps at once.
//
// This file is the body shared by both builds; the build wraps it in the imports of the Shell it
// targets (ES modules from GNOME 45, `imports.gi` before).

const TARRY_NAME = 'org.tarry.Tarry';
const OWN_NAME = 'org.tarry.Tarry.GnomeShell';
const OBJECT_PATH = '/org/tarry/Tarry/GnomeShell';
const INTERFACE = 'org.tarry.Tarry.GnomeShell1';
const PROTOCOL = 2;

// The combinations, by the words Tarry uses for them.
const COMBINATIONS = [
    {word: 'quit', accelerator: '<Control>q', keyval: 'q', mods: ['Control_L']},
    {word: 'close', accelerator: '<Control>w', keyval: 'w', mods: ['Control_L']},
    {word: 'logout', accelerator: '<Control><Shift>q', keyval: 'Q', mods: ['Control_L', 'Shift_L']},
    {word: 'undo', accelerator: '<Control><Alt>z', keyval: 'z', mods: ['Control_L', 'Alt_L']},
];

// Modifier bits sent to Tarry, as Clutter names them.
const SHIFT = 1;
const CONTROL = 4;
const ALT = 8;
const MODIFIER_KEYS = {
    Shift_L: SHIFT, Shift_R: SHIFT,
    Control_L: CONTROL, Control_R: CONTROL,
    Alt_L: ALT, Alt_R: ALT, Meta_L: ALT, Meta_R: ALT,
};
const OTHER_MODIFIERS = ['Super_L', 'Super_R', 'ISO_Level3_Shift', 'Caps_Lock', 'Num_Lock', 'Hyper_L', 'Hyper_R'];

const SHELL_MAJOR = parseInt(Config.PACKAGE_VERSION, 10);
// A typed combination not seen by the Shell's key bindings after this long is forgotten.
const TYPED_EXPIRY_MS = 1000;
// A hold's modal grab ends by itself after this long when Tarry gave no limit.
const DEFAULT_LIMIT_MS = 12000;

const INTERFACE_XML = `
<node>
  <interface name="${INTERFACE}">
    <method name="Hello">
      <arg type="u" direction="in" name="holdLimitMs"/>
      <arg type="s" direction="out" name="about"/>
    </method>
    <method name="Arm">
      <arg type="b" direction="in" name="on"/>
      <arg type="as" direction="out" name="refused"/>
    </method>
    <method name="Type">
      <arg type="s" direction="in" name="word"/>
    </method>
    <method name="FocusedWindow">
      <arg type="s" direction="out" name="json"/>
    </method>
    <method name="Windows">
      <arg type="s" direction="out" name="json"/>
    </method>
    <method name="Close">
      <arg type="i" direction="in" name="pid"/>
      <arg type="b" direction="out" name="delivered"/>
    </method>
    <method name="SetFrame">
      <arg type="u" direction="in" name="id"/>
      <arg type="i" direction="in" name="x"/>
      <arg type="i" direction="in" name="y"/>
      <arg type="i" direction="in" name="width"/>
      <arg type="i" direction="in" name="height"/>
      <arg type="b" direction="in" name="minimized"/>
      <arg type="b" direction="out" name="done"/>
    </method>
    <method name="Hud">
      <arg type="s" direction="in" name="ops"/>
    </method>
    <method name="StatusMenu">
      <arg type="s" direction="in" name="json"/>
    </method>
    <signal name="MenuChose">
      <arg type="s" name="row"/>
    </signal>
    <signal name="MenuReopen">
      <arg type="s" name="path"/>
    </signal>
    <signal name="Key">
      <arg type="s" name="word"/>
      <arg type="b" name="down"/>
      <arg type="s" name="window"/>
    </signal>
    <signal name="Modifiers">
      <arg type="u" name="mask"/>
    </signal>
    <signal name="Activated">
      <arg type="i" name="pid"/>
    </signal>
  </interface>
</node>`;

function keyval(name) {
    return Clutter[`KEY_${name}`];
}

function seat() {
    const context = global.stage.context;
    if (context && context.get_backend)
        return context.get_backend().get_default_seat();
    return Clutter.get_default_backend().get_default_seat();
}

function windowInfo(window) {
    const frame = window.get_frame_rect();
    let app = '';
    try {
        const found = Shell.WindowTracker.get_default().get_window_app(window);
        app = found ? found.get_id() : '';
    } catch (e) {
        app = '';
    }
    return {
        id: window.get_id(),
        pid: window.get_pid(),
        wmClass: window.get_wm_class() || '',
        gtkAppId: window.get_gtk_application_id() || '',
        sandboxedAppId: window.get_sandboxed_app_id ? window.get_sandboxed_app_id() || '' : '',
        desktopId: app,
        title: window.get_title() || '',
        x: frame.x, y: frame.y, width: frame.width, height: frame.height,
        minimized: window.minimized,
        focused: window.has_focus(),
        normal: window.get_window_type() === Meta.WindowType.NORMAL && !window.skip_taskbar,
    };
}

function allWindows() {
    // Front to back, as Tarry lists them.
    const windows = global.display.get_tab_list(Meta.TabList.NORMAL_ALL, null);
    const seen = new Set(windows);
    for (const actor of global.get_window_actors().slice().reverse()) {
        const w = actor.get_meta_window();
        if (w && !seen.has(w)) {
            windows.push(w);
            seen.add(w);
        }
    }
    return windows;
}

var TarryGuard = class TarryGuard {
    constructor(version, path) {
        this._version = version;
        this._path = path;            // the extension's folder (its icons)
        this._owner = null;
        this._armed = false;
        this._grabs = new Map();      // action id -> combination
        this._byWord = new Map();     // word -> action id
        this._hold = null;            // {combination, grab, actor, limit, mods}
        this._queue = [];             // words to type once no guarded key is down
        this._typed = [];             // {word, ms}: typed presses the grabs are to let through
        this._limitMs = DEFAULT_LIMIT_MS;
        this._keyboard = null;
        this._hud = null;
        this._status = null;
    }

    enable() {
        this._exported = Gio.DBusExportedObject.wrapJSObject(INTERFACE_XML, this);
        this._exported.export(Gio.DBus.session, OBJECT_PATH);
        this._ownId = Gio.bus_own_name_on_connection(Gio.DBus.session, OWN_NAME,
            Gio.BusNameOwnerFlags.NONE, null, null);
        this._watchId = Gio.bus_watch_name_on_connection(Gio.DBus.session, TARRY_NAME,
            Gio.BusNameWatcherFlags.NONE,
            (connection, name, owner) => this._tarryAppeared(owner),
            () => this._tarryVanished());
        this._acceleratorId = global.display.connect('accelerator-activated',
            (display, action) => this._onAccelerator(action));
        this._filterId = global.window_manager.connect('filter-keybinding',
            (wm, binding) => this._letTypedThrough(binding));
        this._focusId = global.display.connect('notify::focus-window', () => this._onFocus());
    }

    disable() {
        this._tarryVanished();
        this._endHold(false);
        if (this._grabActor) {
            this._grabActor.destroy();
            this._grabActor = null;
        }
        global.display.disconnect(this._acceleratorId);
        global.window_manager.disconnect(this._filterId);
        global.display.disconnect(this._focusId);
        Gio.bus_unwatch_name(this._watchId);
        Gio.bus_unown_name(this._ownId);
        this._exported.unexport();
        this._exported = null;
        if (this._keyboard) {
            this._keyboard.run_dispose();
            this._keyboard = null;
        }
    }

    // ---- Tarry's presence ----

    _tarryAppeared(owner) {
        if (this._owner && this._owner !== owner)
            this._tarryVanished();
        this._owner = owner;
    }

    _tarryVanished() {
        this._owner = null;
        this._armed = false;
        // A hold under way keeps the keyboard until its key is up (or its time limit), so the app
        // gets the keyboard back with the keys up.
        this._queue = [];
        this._ungrabAll();
        this._hideHud();
        this._removeStatusMenu();
    }

    _fromTarry(invocation) {
        if (this._owner && invocation.get_sender() === this._owner)
            return true;
        invocation.return_dbus_error('org.freedesktop.DBus.Error.AccessDenied',
            'only Tarry may call this');
        return false;
    }

    _tell(signal, signature, values) {
        if (!this._owner)
            return;
        Gio.DBus.session.emit_signal(this._owner, OBJECT_PATH, INTERFACE, signal,
            new GLib.Variant(signature, values));
    }

    // ---- D-Bus methods (Tarry only) ----

    HelloAsync([limitMs], invocation) {
        if (!this._fromTarry(invocation))
            return;
        if (limitMs > 0)
            this._limitMs = limitMs;
        invocation.return_value(new GLib.Variant('(s)', [JSON.stringify({
            protocol: PROTOCOL, version: this._version, shell: Config.PACKAGE_VERSION,
        })]));
    }

    ArmAsync([on], invocation) {
        if (!this._fromTarry(invocation))
            return;
        this._armed = on;
        const refused = on ? this._grabAll() : [];
        if (!on) {
            this._endHold(false);
            this._ungrabAll();
        }
        invocation.return_value(new GLib.Variant('(as)', [refused]));
    }

    TypeAsync([word], invocation) {
        if (!this._fromTarry(invocation))
            return;
        invocation.return_value(null);
        const combination = COMBINATIONS.find(c => c.word === word);
        if (!combination)
            return;
        // A virtual key press is dropped while the physical key is down: type at its release.
        if (this._hold)
            this._queue.push(combination);
        else
            this._type(combination);
    }

    FocusedWindowAsync(params, invocation) {
        if (!this._fromTarry(invocation))
            return;
        const window = global.display.focus_window;
        invocation.return_value(new GLib.Variant('(s)',
            [window ? JSON.stringify(windowInfo(window)) : '']));
    }

    WindowsAsync(params, invocation) {
        if (!this._fromTarry(invocation))
            return;
        invocation.return_value(new GLib.Variant('(s)',
            [JSON.stringify(allWindows().map(windowInfo))]));
    }

    CloseAsync([pid], invocation) {
        if (!this._fromTarry(invocation))
            return;
        const windows = allWindows().filter(w => w.get_pid() === pid);
        const now = global.get_current_time();
        for (const w of windows)
            w.delete(now);
        invocation.return_value(new GLib.Variant('(b)', [windows.length > 0]));
    }

    SetFrameAsync([id, x, y, width, height, minimized], invocation) {
        if (!this._fromTarry(invocation))
            return;
        const window = allWindows().find(w => w.get_id() === id);
        if (window) {
            if (window.minimized && !minimized)
                window.unminimize();
            window.move_resize_frame(true, x, y, width, height);
            if (minimized && !window.minimized)
                window.minimize();
            // A window that has just appeared is placed by Mutter when it is first shown, over a
            // frame set before: set it again once that is done.
            const again = () => {
                const frame = window.get_frame_rect();
                if (frame.x !== x || frame.y !== y || frame.width !== width || frame.height !== height)
                    window.move_resize_frame(true, x, y, width, height);
            };
            let shown = window.connect('shown', () => {
                window.disconnect(shown);
                shown = 0;
                again();
            });
            GLib.timeout_add(GLib.PRIORITY_DEFAULT, 300, () => {
                // Gone in the meantime: nothing to do.
                if (!window.get_compositor_private())
                    return GLib.SOURCE_REMOVE;
                if (shown)
                    window.disconnect(shown);
                again();
                return GLib.SOURCE_REMOVE;
            });
        }
        invocation.return_value(new GLib.Variant('(b)', [!!window]));
    }

    // The HUD's changes come in batches, all that Tarry decided at one time, so the Shell never
    // paints a frame between the panel's layout and its showing.
    HudAsync([json], invocation) {
        if (!this._fromTarry(invocation))
            return;
        invocation.return_value(null);
        let ops;
        try {
            ops = JSON.parse(json);
        } catch (e) {
            return;
        }
        for (const op of Array.isArray(ops) ? ops : [ops])
            this._drawHud(op);
    }

    StatusMenuAsync([json], invocation) {
        if (!this._fromTarry(invocation))
            return;
        invocation.return_value(null);
        let state;
        try {
            state = JSON.parse(json);
        } catch (e) {
            return;
        }
        this._drawStatusMenu(state);
    }

    // ---- keys ----

    _grabAll() {
        const refused = [];
        for (const combination of COMBINATIONS) {
            if (!this._byWord.has(combination.word) && !this._grab(combination))
                refused.push(combination.word);
        }
        return refused;
    }

    _grab(combination) {
        const action = global.display.grab_accelerator(combination.accelerator,
            Meta.KeyBindingFlags.IGNORE_AUTOREPEAT);
        if (action === Meta.KeyBindingAction.NONE)
            return false;
        Main.wm.allowKeybinding(Meta.external_binding_name_for_action(action),
            Shell.ActionMode.NORMAL | Shell.ActionMode.OVERVIEW);
        this._grabs.set(action, combination);
        this._byWord.set(combination.word, action);
        return true;
    }

    _ungrab(word) {
        const action = this._byWord.get(word);
        if (action === undefined)
            return;
        global.display.ungrab_accelerator(action);
        Main.wm.allowKeybinding(Meta.external_binding_name_for_action(action), Shell.ActionMode.NONE);
        this._grabs.delete(action);
        this._byWord.delete(word);
    }

    _ungrabAll() {
        this._typed = [];
        for (const word of [...this._byWord.keys()])
            this._ungrab(word);
    }

    _onAccelerator(action) {
        const combination = this._grabs.get(action);
        if (!combination || !this._owner)
            return;
        if (this._hold)
            this._endHold(true);
        // Tarry hears of the press, with the window it was made in, before the grab is taken: it
        // decides from that alone and need not ask the Shell back.
        const window = global.display.focus_window;
        this._tell('Key', '(sbs)', [combination.word, true, window ? JSON.stringify(windowInfo(window)) : '']);
        this._startHold(combination);
    }

    // The release and the modifiers of a held combination come through a modal grab: the app has
    // no keyboard focus until it ends, at the key's release or at the time limit.
    _startHold(combination) {
        const actor = this._holdActor();
        actor.reactive = true;
        const grab = Main.pushModal(actor, {actionMode: Shell.ActionMode.NORMAL});
        actor.grab_key_focus();
        let mods = 0;
        for (const name of combination.mods)
            mods |= MODIFIER_KEYS[name];
        const hold = {combination, grab, actor, mods, limit: 0};
        this._hold = hold;
        hold.handlers = [
            actor.connect('key-press-event', (a, event) => this._onHoldKey(hold, event, true)),
            actor.connect('key-release-event', (a, event) => this._onHoldKey(hold, event, false)),
        ];
        hold.limit = GLib.timeout_add(GLib.PRIORITY_DEFAULT, this._limitMs, () => {
            hold.limit = 0;
            if (this._hold === hold)
                this._endHold(true);
            return GLib.SOURCE_REMOVE;
        });
    }

    // The actor that takes the keyboard during holds lives as long as the extension: one put on the
    // stage for each press, and taken off at its release, had the Shell repaint the whole screen
    // at both (about 5 ms in software rendering), and the HUD's first frame waited for it.
    // It takes clicks only during a hold (it sits on the screen's top-left pixel, the hot corner),
    // and keyboard focus navigation never stops on it: a hold hands it the keyboard directly.
    _holdActor() {
        if (!this._grabActor) {
            this._grabActor = new St.Widget({reactive: false, can_focus: false, width: 1, height: 1, opacity: 0});
            Main.uiGroup.add_child(this._grabActor);
        }
        return this._grabActor;
    }

    _onHoldKey(hold, event, down) {
        if (this._hold !== hold)
            return Clutter.EVENT_STOP;
        const symbol = event.get_key_symbol();
        const name = Object.keys(MODIFIER_KEYS).find(n => keyval(n) === symbol);
        if (name) {
            const before = hold.mods;
            hold.mods = down ? hold.mods | MODIFIER_KEYS[name] : hold.mods & ~MODIFIER_KEYS[name];
            if (hold.mods !== before)
                this._tell('Modifiers', '(u)', [hold.mods]);
            return Clutter.EVENT_STOP;
        }
        if (OTHER_MODIFIERS.some(n => keyval(n) === symbol))
            return Clutter.EVENT_STOP;
        // Any other key going up ends the hold: on a Cyrillic layout the Q key comes up as й.
        if (!down)
            this._endHold(true);
        return Clutter.EVENT_STOP;
    }

    _endHold(tellRelease) {
        const hold = this._hold;
        if (!hold)
            return;
        this._hold = null;
        if (hold.limit)
            GLib.source_remove(hold.limit);
        Main.popModal(hold.grab);
        for (const id of hold.handlers)
            hold.actor.disconnect(id);
        hold.actor.reactive = false;
        if (tellRelease)
            this._tell('Key', '(sbs)', [hold.combination.word, false, '']);
        const queued = this._queue;
        this._queue = [];
        for (const combination of queued)
            this._type(combination, hold.mods);
    }

    // Types a combination into the focused app. The grabs stay: the Shell asks whether each press
    // of a grabbed combination is a key binding, and ours are let through to the app
    // (`_letTypedThrough`), while a press of the user's right after still meets the grab.
    // On GNOME 43 modifiers the user still holds are not pressed a second time (their typed release
    // would end them for the app). From GNOME 46 on a modifier held on another keyboard is not
    // reliably in force for keys typed on ours (the app now and then got a bare W): all are typed.
    _type(combination, held = 0) {
        if (!this._keyboard)
            this._keyboard = seat().create_virtual_device(Clutter.InputDeviceType.KEYBOARD_DEVICE);
        const mods = SHELL_MAJOR >= 46 ? combination.mods.slice()
            : combination.mods.filter(n => !(held & MODIFIER_KEYS[n]));
        let time = GLib.get_monotonic_time();
        if (this._byWord.has(combination.word)) {
            this._forgetTyped(Math.floor(time / 1000) >>> 0);
            // Event times are milliseconds in 32 bits.
            this._typed.push({word: combination.word, ms: Math.floor((time + mods.length) / 1000) >>> 0});
        }
        const key = (name, state) => this._keyboard.notify_keyval(time++, keyval(name), state);
        for (const m of mods)
            key(m, Clutter.KeyState.PRESSED);
        key(combination.keyval, Clutter.KeyState.PRESSED);
        key(combination.keyval, Clutter.KeyState.RELEASED);
        for (const m of mods.slice().reverse())
            key(m, Clutter.KeyState.RELEASED);
    }

    _forgetTyped(nowMs) {
        this._typed = this._typed.filter(t => ((nowMs - t.ms) >>> 0) < TYPED_EXPIRY_MS);
    }

    // True (no key binding: the press goes on to the focused app) for a press this extension typed.
    // Ours carry the time they were typed with, to the millisecond, and come from no physical
    // keyboard; any other press of a grabbed combination is the user's and stays caught. The Shell
    // may ask more than once about one press (GNOME 49 now and then asks twice, and the second
    // answer decides): a typed press is answered the same each time, and forgotten only when it
    // expires.
    _letTypedThrough(binding) {
        if (!this._typed.length)
            return false;
        const action = [...this._grabs.keys()].find(a =>
            Meta.external_binding_name_for_action(a) === binding.get_name());
        if (action === undefined)
            return false;
        const event = Clutter.get_current_event();
        if (!event)
            return false;
        const device = event.get_source_device();
        if (device && device.get_device_node())
            return false;
        const word = this._grabs.get(action).word;
        const ms = event.get_time();
        this._forgetTyped(ms);
        return this._typed.some(t => t.word === word && t.ms === ms);
    }

    // ---- focus ----

    _onFocus() {
        const window = global.display.focus_window;
        if (window && this._owner)
            this._tell('Activated', '(i)', [window.get_pid()]);
    }

    // ---- the HUD ----
    //
    // Tarry decides what the hold panel shows, where and how opaque; this draws it above every
    // window, never reactive (clicks go through), and fades it as told.

    _drawHud(state) {
        switch (state.op) {
        case 'layout':
            this._hudLayout(state.layout);
            break;
        case 'origin':
            this._hudPanel().set_position(Math.round(state.x), Math.round(state.y));
            break;
        case 'alpha':
            this._hudPanel().remove_all_transitions();
            this._hudPanel().opacity = Math.round(state.alpha * 255);
            break;
        case 'fade':
            this._hudPanel().remove_all_transitions();
            this._hudPanel().ease({
                opacity: Math.round(state.alpha * 255),
                duration: Math.round(state.seconds * 1000),
                mode: Clutter.AnimationMode.LINEAR,
            });
            break;
        case 'show':
            this._hudPanel().show();
            // Restacking lays out every sibling anew: done only when something went above it.
            if (Main.uiGroup.get_last_child() !== this._hud)
                Main.uiGroup.set_child_above_sibling(this._hud, null);
            this._paintNow();
            break;
        case 'hide':
            if (this._hud) {
                this._hud.remove_all_transitions();
                this._hud.hide();
            }
            break;
        }
    }

    // The panel's first frame is painted at once, not at the slot the Shell's frame clock would
    // plan for it (up to a whole refresh later). The press itself has the Shell plan a frame at its
    // next slot (the hold's grab takes the app's keyboard focus), and on GNOME 43 asking for a frame
    // now leaves a planned one where it is: held for a moment, the clock drops its plan, and let go
    // it takes up the request for a frame now.
    _paintNow() {
        const clockOf = actor => new Clutter.Timeline({actor, duration: 1}).frame_clock;
        const clock = clockOf(this._hud) || clockOf(Main.uiGroup);
        if (!clock || !clock.schedule_update_now)
            return;
        const hold = !!clock.inhibit && !!clock.uninhibit;
        if (hold)
            clock.inhibit();
        clock.schedule_update_now();
        if (hold)
            clock.uninhibit();
    }

    _hudPanel() {
        if (!this._hud) {
            this._hud = new St.Widget({name: 'tarry-hud', reactive: false, visible: false, opacity: 0});
            this._hudParts = {
                background: new St.Widget(),
                icon: new St.Icon(),
                label: new St.Label(),
                track: new St.Widget(),
                fill: new St.Widget(),
                time: new St.Label(),
                pct: new St.Label(),
            };
            for (const part of Object.values(this._hudParts))
                this._hud.add_child(part);
            Main.uiGroup.add_child(this._hud);
        }
        return this._hud;
    }

    _hudLayout(layout) {
        const panel = this._hudPanel();
        const parts = this._hudParts;
        const height = layout.height;
        // Frames come from the panel's lower-left corner; St places from the top-left.
        const place = (actor, f, dx = 0, dy = 0, outer = height) => {
            actor.set_position(Math.round(f.x + dx), Math.round(outer - f.y - f.height + dy));
            actor.set_size(Math.round(f.width), Math.round(f.height));
        };
        const rgba = c => `rgba(${Math.round(c.red * 255)},${Math.round(c.green * 255)},${Math.round(c.blue * 255)},${c.alpha})`;
        panel.set_size(Math.round(layout.width), Math.round(height));
        parts.background.set_position(0, 0);
        parts.background.set_size(Math.round(layout.width), Math.round(height));
        // A style set anew is parsed and laid out anew: only changed ones are set (the meter's fill
        // changes at every tick, the rest seldom).
        const style = (actor, text) => {
            if (actor.style !== text)
                actor.style = text;
        };
        style(parts.background, `background-color: ${rgba(layout.background)}; border-radius: ${layout.cornerRadius}px;` +
            (layout.shadow ? ' box-shadow: 0 2px 12px rgba(0,0,0,0.35);' : ''));

        parts.icon.visible = !!layout.icon.name;
        if (layout.icon.name) {
            if (layout.icon.name.startsWith('/'))
                parts.icon.gicon = Gio.FileIcon.new(Gio.File.new_for_path(layout.icon.name));
            else
                parts.icon.icon_name = layout.icon.name;
            place(parts.icon, layout.icon.frame);
            parts.icon.icon_size = Math.round(Math.min(layout.icon.frame.width, layout.icon.frame.height));
            // An app that has only a symbolic icon gets it in the title's colour (St would paint
            // it in the Shell's own, white, unreadable on the light panel).
            style(parts.icon, `color: ${rgba(layout.label.color)};`);
        }

        const text = (actor, t) => {
            actor.visible = t.visible;
            if (!t.visible)
                return;
            if (actor.text !== t.text)
                actor.text = t.text;
            place(actor, t.frame);
            const weight = {regular: 'normal', semibold: '600', bold: 'bold'}[t.font.weight] || 'normal';
            // Sizes are pixels, as the Qt panels draw them (St's pt would be a third larger).
            style(actor, `color: ${rgba(t.color)}; font-size: ${t.font.size}px; font-weight: ${weight};` +
                ` padding: 0 2px; text-align: ${t.alignment};` +
                (t.font.monospacedDigits ? ' font-feature-settings: "tnum";' : ''));
            actor.clutter_text.line_wrap = t.maxLines > 1;
            actor.clutter_text.ellipsize = 3; // Pango.EllipsizeMode.END
        };
        text(parts.label, layout.label);
        text(parts.time, layout.timeLabel);
        text(parts.pct, layout.pctLabel);

        const bar = layout.bar;
        parts.track.visible = bar.visible;
        parts.fill.visible = bar.visible && !!bar.fill;
        if (bar.visible) {
            const rect = (actor, r) => {
                place(actor, r.rect, bar.frame.x, height - bar.frame.y - bar.frame.height, bar.frame.height);
                style(actor, `background-color: ${rgba(r.color)}; border-radius: ${r.radius}px;`);
            };
            rect(parts.track, bar.track);
            if (bar.fill)
                rect(parts.fill, bar.fill);
        }
    }

    _hideHud() {
        if (this._hud) {
            this._hud.destroy();
            this._hud = null;
            this._hudParts = null;
        }
    }

    // ---- the status item in the top bar ----
    //
    // Tarry decides the rows, titles, checks and enabled states; this builds the same menu as its
    // tray item (rows in the same order, the same separators) and sends the choices back.

    _drawStatusMenu(state) {
        if (!state.shown) {
            this._removeStatusMenu();
            return;
        }
        if (!this._status)
            this._createStatusMenu();
        const s = this._status;
        // Symbolic icons of ours, which the Shell paints in the bar's colours.
        if (state.symbol && state.symbol !== s.symbol) {
            s.icon.gicon = Gio.FileIcon.new(Gio.File.new_for_path(`${this._path}/icons/${state.symbol}.svg`));
            s.symbol = state.symbol;
        }
        s.badge.text = state.badge || '';
        s.badge.visible = !!state.badge;
        s.button.accessible_name = state.toolTip || 'Tarry';
        for (const row of state.rows) {
            const item = s.items[row.row];
            if (!item)
                continue;
            item.visible = row.visible;
            item.setSensitive(row.enabled);
            if (item.label)
                item.label.text = row.title;
            if (item.setToggleState)
                item.setToggleState(row.checked);
        }
        const recent = s.items.recent;
        recent.menu.removeAll();
        for (const r of state.recents) {
            if (r.kind === 'separator') {
                recent.menu.addMenuItem(new PopupMenu.PopupSeparatorMenuItem());
                continue;
            }
            const item = new PopupMenu.PopupMenuItem(r.title);
            if (r.kind === 'placeholder')
                item.setSensitive(false);
            else if (r.kind === 'clear')
                item.connect('activate', () => this._tell('MenuChose', '(s)', ['clearRecents']));
            else
                item.connect('activate', () => this._tell('MenuReopen', '(s)', [r.path]));
            recent.menu.addMenuItem(item);
        }
    }

    _createStatusMenu() {
        const button = new PanelMenu.Button(0.0, 'Tarry', false);
        const box = new St.BoxLayout({style_class: 'panel-status-indicators-box'});
        const icon = new St.Icon({style_class: 'system-status-icon'});
        // Today's count beside the icon, in the bar's text colour.
        const badge = new St.Label({
            style: 'font-weight: bold; font-feature-settings: "tnum";',
            y_align: Clutter.ActorAlign.CENTER,
            visible: false,
        });
        box.add_child(icon);
        box.add_child(badge);
        button.add_child(box);
        const items = {};
        const chose = word => () => this._tell('MenuChose', '(s)', [word]);
        const add = (menu, word, item = new PopupMenu.PopupMenuItem('')) => {
            if (word !== 'header' && word !== 'counter')
                item.connect('activate', chose(word));
            menu.addMenuItem(item);
            items[word] = item;
            return item;
        };
        const menu = button.menu;
        add(menu, 'header');
        add(menu, 'counter');
        menu.addMenuItem(new PopupMenu.PopupSeparatorMenuItem());
        add(menu, 'toggle', new PopupMenu.PopupSwitchMenuItem('', false));
        const pause = new PopupMenu.PopupSubMenuMenuItem('');
        menu.addMenuItem(pause);
        items.pause = pause;
        for (const word of ['pauseFor15', 'pauseFor60', 'pauseTomorrow'])
            add(pause.menu, word);
        pause.menu.addMenuItem(new PopupMenu.PopupSeparatorMenuItem());
        add(pause.menu, 'resume');
        const recent = new PopupMenu.PopupSubMenuMenuItem('');
        menu.addMenuItem(recent);
        items.recent = recent;
        add(menu, 'undo');
        menu.addMenuItem(new PopupMenu.PopupSeparatorMenuItem());
        for (const word of ['stats', 'rules', 'quitOthers'])
            add(menu, word);
        menu.addMenuItem(new PopupMenu.PopupSeparatorMenuItem());
        for (const word of ['settings', 'about', 'checkUpdates'])
            add(menu, word);
        menu.addMenuItem(new PopupMenu.PopupSeparatorMenuItem());
        add(menu, 'quit');
        // The header and the counter are lines of text, never chosen.
        menu.connect('open-state-changed', (m, open) => {
            if (open)
                this._tell('MenuChose', '(s)', ['opening']);
        });
        Main.panel.addToStatusArea('tarry-status', button);
        this._status = {button, icon, badge, items, symbol: ''};
    }

    _removeStatusMenu() {
        if (this._status) {
            this._status.button.destroy();
            this._status = null;
        }
    }
};
