
class TarryExtension {
    enable() {
        const self = ExtensionUtils.getCurrentExtension();
        this._guard = new TarryGuard(self.metadata.version, self.path);
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
