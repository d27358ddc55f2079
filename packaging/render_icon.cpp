// Renders the scalable launcher icon into one of the PNG sizes of the hicolor theme, at build
// time, so the PNGs always match the SVG.
//
//   tarry-render-icon SVG SIZE OUT.png
#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <QSvgRenderer>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fputs("usage: tarry-render-icon SVG SIZE OUT.png\n", stderr);
    return 2;
  }
  qputenv("QT_QPA_PLATFORM", "offscreen");
  QGuiApplication app(argc, argv);
  const int size = std::atoi(argv[2]);
  QSvgRenderer renderer(QString::fromLocal8Bit(argv[1]));
  if (!renderer.isValid() || size <= 0) {
    std::fprintf(stderr, "tarry-render-icon: cannot render %s at %s px\n", argv[1], argv[2]);
    return 1;
  }
  QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
  image.fill(Qt::transparent);
  QPainter painter(&image);
  painter.setRenderHint(QPainter::Antialiasing);
  renderer.render(&painter);
  painter.end();
  if (!image.save(QString::fromLocal8Bit(argv[3]), "PNG")) {
    std::fprintf(stderr, "tarry-render-icon: cannot write %s\n", argv[3]);
    return 1;
  }
  return 0;
}
