// Relighting: the reconstructed slopes under a movable lamp, beside the photographs.
//
// Axes are those of the results: x to the left, y down, z to the camera. A pixel with the slopes p, q
// has the normal n = (p, q, 1) / sqrt(p^2 + q^2 + 1); a lamp l makes it print x max(0, n . l).

// Slopes of all pixels. Calibrated channels are components of normals. Uncalibrated slopes are in units
// of their singular vectors: one unit changes the brightness by s1 / s0 or s2 / s0, and is a slope of
// sqrt(2) times that under lamps all around, about 45 degrees from the camera's axis. One unit for both
// slopes keeps shapes.
function slopesOf(report) {
  const {recipe: {gains, offsets, run}, singular_values: values = []} = report.record;
  const unit = run === 'cali' ? 1 : values[2] > 0 ? Math.sqrt(2 * values[1] * values[2]) / values[0] : 0.2;
  const slopes = ['channel0', 'channel1'].map((name) => {
    return Float32Array.from(report.planes[name],
                             (level) => (level - offsets[name]) / gains[name] * unit);
  });
  if (run !== 'cali') return slopes;
  for (let k = 0; k < slopes[0].length; ++k) {
    const [x, y] = [slopes[0][k], slopes[1][k]];
    const z = Math.sqrt(Math.max(1 - x * x - y * y, 0.01));
    slopes[0][k] = x / z;
    slopes[1][k] = y / z;
  }
  return slopes;
}

// azimuth: degrees counter-clockwise from the right in the picture; slant: from the camera's axis.
function lampAt(azimuth, slant) {
  const [a, s] = [azimuth * Math.PI / 180, slant * Math.PI / 180];
  return [-Math.sin(s) * Math.cos(a), -Math.sin(s) * Math.sin(a), Math.cos(s)];
}

// Directions and slant in degrees of the lamps of the calibrated run's ring, whose angles of 45, 90
// and so on are radians.
function ringLamps(count) {
  const angles = count === 3 ? [315, 225, 135]
                             : Array.from({length: count}, (_, k) => k * Math.floor(360 / count));
  const slant = Math.acos(Math.cos(45)) * 180 / Math.PI;
  return angles.map((a) => {
    const [x, y] = [Math.cos(a) * Math.sin(45), -Math.sin(a) * Math.sin(45)];
    return [(Math.atan2(-y, -x) * 180 / Math.PI + 360) % 360, slant];
  });
}

function startRelighting(report) {
  const section = byId('relighting');
  const {channel0, channel1, factor: brightness} = report.planes;
  if (!channel0 || !channel1) {
    explain(section, 'Relighting needs the results channel0 and channel1: reconstruct with --outputs all.');
    return;
  }
  const {width, height} = report.size;
  const [p, q] = slopesOf(report);
  const canvas = byId('relight-canvas');
  const stage = byId('relight-stage');
  const lamp = byId('relight-lamp');
  const [azimuth, slant, strength, print, invert, mirror, follow] =
      ['azimuth', 'slant', 'strength', 'print', 'invert', 'mirror', 'follow'].map((name) => byId(`relight-${name}`));
  canvas.width = width;
  canvas.height = height;
  const context = canvas.getContext('2d');
  const image = context.createImageData(width, height);
  image.data.fill(255);
  print.disabled = !brightness;

  let waiting = false;
  function draw() {
    waiting = false;
    const [x, y, z] = lampAt(azimuth.valueAsNumber, slant.valueAsNumber);
    const factor = 2 ** strength.valueAsNumber;
    const relief = factor * (invert.checked ? -1 : 1);
    const across = relief * (mirror.checked ? -1 : 1);
    const levels = print.checked ? brightness : null;
    for (let k = 0, at = 0; k < p.length; ++k, at += 4) {
      const [a, b] = [p[k] * relief, q[k] * across];
      const light = (a * x + b * y + z) / Math.sqrt(a * a + b * b + 1);
      const level = (levels ? levels[k] : 255) * light;  // clamped to 0..255 by the array
      image.data[at] = image.data[at + 1] = image.data[at + 2] = level;
    }
    context.putImageData(image, 0, 0);
    showFactor(byId('relight-factor'), strength, factor);
    lamp.style.left = `${50 - 50 * x}%`;
    lamp.style.top = `${50 + 50 * y}%`;
    byId('relight-text').textContent = `Lamp at ${Math.round(azimuth.valueAsNumber)} degrees, ` +
        `counter-clockwise from the right, ${Math.round(slant.valueAsNumber)} degrees from the camera's axis.`;
  }
  function redraw() {
    if (!waiting) requestAnimationFrame(draw);
    waiting = true;
  }

  // right, up: place in the picture, -1 to 1.
  function moveTo(right, up) {
    follow.checked = false;
    azimuth.value = (Math.atan2(up, right) * 180 / Math.PI + 360) % 360;
    slant.value = Math.asin(Math.min(Math.hypot(right, up), 1)) * 180 / Math.PI;
    redraw();
  }
  function moveToPointer(event) {
    const box = stage.getBoundingClientRect();
    moveTo(2 * (event.clientX - box.left) / box.width - 1, 1 - 2 * (event.clientY - box.top) / box.height);
  }
  stage.addEventListener('pointerdown', (event) => {
    stage.setPointerCapture(event.pointerId);
    moveToPointer(event);
  });
  stage.addEventListener('pointermove', (event) => event.buttons && moveToPointer(event));
  stage.addEventListener('keydown', (event) => {
    const step = {ArrowLeft: [-1, 0], ArrowRight: [1, 0], ArrowUp: [0, 1], ArrowDown: [0, -1]}[event.key];
    if (!step) return;
    event.preventDefault();
    const [x, y] = lampAt(azimuth.valueAsNumber, slant.valueAsNumber);
    moveTo(-x + 0.05 * step[0], -y + 0.05 * step[1]);
  });
  for (const control of [azimuth, slant]) control.addEventListener('input', () => (follow.checked = false));
  for (const control of [azimuth, slant, strength, print, invert, mirror]) {
    control.addEventListener('input', redraw);
  }
  startPhotographs(report, redraw);
  draw();
}

function startPhotographs(report, redraw) {
  const {inputs, record} = report;
  if (inputs.length === 0) {
    byId('photographs').remove();
    return;
  }
  const follow = byId('relight-follow');
  const lamps = record.recipe.run === 'cali' ? ringLamps(inputs.length) : null;
  if (!lamps) byId('follow-label').remove();
  let at = 0;
  function flip(step) {
    at = (at + step + inputs.length) % inputs.length;
    const {canvas, file, missing} = inputs[at];
    byId('photograph').hidden = !canvas;
    if (canvas) show(byId('photograph'), {name: `photograph ${at + 1}`, text: file, canvas});
    byId('photograph-text').textContent = `Photograph ${at + 1} of ${inputs.length}: ${missing || file}`;
    if (follow.checked && lamps) {
      [byId('relight-azimuth').value, byId('relight-slant').value] = lamps[at];
      redraw();
    }
  }
  byId('photograph-before').addEventListener('click', () => flip(-1));
  byId('photograph-after').addEventListener('click', () => flip(1));
  follow.addEventListener('input', () => flip(0));
  flip(0);
}
