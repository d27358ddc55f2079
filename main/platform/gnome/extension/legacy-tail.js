
class TarryExtension {
    enable() {
        this._guard = new TarryGuard(ExtensionUtils.getCurrentExtension().metadata.version);
        this._guard.enable();
    }

    disable() {
        this._guard.disable();
        this._guard = null;
    }
}

function init() {
    return new TarryExtension();
}
