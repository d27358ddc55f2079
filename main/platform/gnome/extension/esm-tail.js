
export default class TarryExtension extends Extension {
    enable() {
        this._guard = new TarryGuard(this.metadata.version, this.path);
        this._guard.enable();
    }

    disable() {
        this._guard.disable();
        this._guard = null;
    }
}
