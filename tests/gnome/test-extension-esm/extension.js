// Test aid for the GNOME end-to-end runs (GNOME 45+ format): lets the harness use the Shell's
// Eval method, to hide the overview and to read window frames. Never installed outside tests.
import {Extension} from 'resource:///org/gnome/shell/extensions/extension.js';

export default class TestAid extends Extension {
    enable() {
        global.context.unsafe_mode = true;
    }

    disable() {
        global.context.unsafe_mode = false;
    }
}
