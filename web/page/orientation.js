// Pictures as they are to be seen: orientations are EXIF's, 1 to 8, of which 5 to 8 exchange the sides.

export function isTurned(orientation) {
  return orientation >= 5;
}

/** From places in what is stored, of that width and height, to those in what is seen. */
export function uprightMatrix(orientation, width, height) {
  const [w, h] = [width, height];
  const matrices = [
    [1, 0, 0, 1, 0, 0],
    [-1, 0, 0, 1, w, 0],
    [-1, 0, 0, -1, w, h],
    [1, 0, 0, -1, 0, h],
    [0, 1, 1, 0, 0, 0],
    [0, 1, -1, 0, h, 0],
    [0, -1, -1, 0, h, w],
    [0, -1, 1, 0, 0, w],
  ];
  return new DOMMatrix(matrices[orientation - 1] ?? matrices[0]);
}

/** A rectangle after a matrix that turns and mirrors. */
export function rectangleBy(matrix, {x, y, width, height}) {
  const [a, b] = [
    [x, y],
    [x + width, y + height],
  ].map(([u, v]) => matrix.transformPoint({x: u, y: v}));
  return {
    x: Math.min(a.x, b.x),
    y: Math.min(a.y, b.y),
    width: Math.abs(a.x - b.x),
    height: Math.abs(a.y - b.y),
  };
}

/** A decoded image, or a part of one, for drawing. */
export async function uprightBitmap({data, width, height, orientation}) {
  const stored = await createImageBitmap(new ImageData(data, width, height));
  if (orientation === 1) return stored;
  const [columns, rows] = isTurned(orientation) ? [height, width] : [width, height];
  const canvas = new OffscreenCanvas(columns, rows);
  const context = canvas.getContext('2d');
  context.setTransform(uprightMatrix(orientation, width, height));
  context.drawImage(stored, 0, 0);
  stored.close();
  return canvas.transferToImageBitmap();
}
