// GNOME Shell 43 and 44: imports.gi.
/* exported init */
const {Clutter, Gio, GLib, Meta, Shell, St} = imports.gi;
const Config = imports.misc.config;
const Main = imports.ui.main;
const PanelMenu = imports.ui.panelMenu;
const PopupMenu = imports.ui.popupMenu;
const ExtensionUtils = imports.misc.extensionUtils;

