// Measure: a line over a picture, the profiles of the results along it, and their numbers as CSV.

const kMeasured = ['height', 'channel0', 'channel1', 'channel2', 'curvature', 'magnitude', 'factor'];
const kPlotted = ['height', 'channel0', 'channel1', 'channel2'];

// Between the pixels, whose centres are at whole numbers: weighted means (bilinear).
function levelAt(plane, size, x, y) {
  const [cx, cy] = [Math.min(Math.max(x, 0), size.width - 1), Math.min(Math.max(y, 0), size.height - 1)];
  const [j, i] = [Math.min(Math.floor(cx), size.width - 2), Math.min(Math.floor(cy), size.height - 2)].map((v) => Math.max(v, 0));
  const [dx, dy] = [cx - j, cy - i];
  const at = (row, col) => plane[Math.min(row, size.height - 1) * size.width + Math.min(col, size.width - 1)];
  return (at(i, j) * (1 - dx) + at(i, j + 1) * dx) * (1 - dy) + (at(i + 1, j) * (1 - dx) + at(i + 1, j + 1) * dx) * dy;
}

// Samples one pixel of the page apart. line: [x1, y1, x2, y2] in pixels of the results, as are x, y and distance.
function profile(report, line) {
  const {planes, size, width, height} = report;
  const [x1, y1, x2, y2] = line;
  const length = Math.hypot(x2 - x1, y2 - y1);
  const count = Math.max(Math.round(length * size.width / width), 1);
  const names = kMeasured.filter((name) => planes[name]);
  return Array.from({length: count + 1}, (_, k) => {
    const t = k / count;
    const sample = {distance: t * length, x: x1 + t * (x2 - x1), y: y1 + t * (y2 - y1)};
    // The centre of a pixel of the page is that of the pixels that it stands for.
    const [x, y] = [(sample.x + 0.5) * size.width / width - 0.5, (sample.y + 0.5) * size.height / height - 0.5];
    for (const name of names) sample[name] = levelAt(planes[name], size, x, y);
    return sample;
  });
}

function toCsv(samples) {
  const names = Object.keys(samples[0]);
  const rows = samples.map((sample) => names.map((name) => +sample[name].toFixed(3)).join(','));
  return [names.join(','), ...rows].join('\r\n') + '\r\n';
}

function plot(container, samples, name) {
  const [w, h, left, bottom] = [Math.max(container.clientWidth, 240), 130, 52, 24];  // letters keep their size
  const x = d3.scale.linear().domain(d3.extent(samples, (s) => s.distance)).range([left, w - 8]);
  const y = d3.scale.linear().domain(d3.extent(samples, (s) => s[name])).nice(4).range([h - bottom, 16]);
  const extent = d3.extent(samples, (s) => s[name]).map(short);
  const svg = d3.select(container).append('svg').attr({
    class: 'plot', viewBox: `0 0 ${w} ${h}`, role: 'img',
    'aria-label': `Profile of ${name}: from ${extent[0]} to ${extent[1]}`,
  });
  svg.append('g').attr({class: 'axis', transform: `translate(0,${h - bottom})`}).call(d3.svg.axis().scale(x).ticks(w / 90).orient('bottom'));
  svg.append('g').attr({class: 'axis', transform: `translate(${left},0)`}).call(d3.svg.axis().scale(y).ticks(4).orient('left'));
  svg.append('text').attr({x: left + 4, y: 12}).text(name);
  svg.append('path').attr({class: 'curve', 'data-name': name, d: d3.svg.line().x((s) => x(s.distance)).y((s) => y(s[name]))(samples)});
}

function startMeasuring(report) {
  const section = byId('measure');
  if (!kMeasured.some((name) => report.planes[name])) {
    explain(section, 'There is no result to measure.');
    return;
  }
  const {width, height} = report;
  const stage = byId('measure-stage');
  const select = byId('measure-picture');
  const ends = ['x1', 'y1', 'x2', 'y2'].map((name) => byId(`measure-${name}`));
  let samples = [];

  function draw() {
    const line = ends.map((input) => input.valueAsNumber);
    if (line.some(Number.isNaN)) return;
    const [x1, y1, x2, y2] = line;
    const across = (x) => `${(x + 0.5) / width * 100}%`;
    const down = (y) => `${(y + 0.5) / height * 100}%`;
    d3.select('#measure-line line').attr({x1: across(x1), y1: down(y1), x2: across(x2), y2: down(y2)});
    d3.selectAll('#measure-line circle').data([[x1, y1], [x2, y2]]).attr({cx: (e) => across(e[0]), cy: (e) => down(e[1])});
    samples = profile(report, line);
    byId('measure-plots').replaceChildren();
    for (const name of kPlotted) {
      if (report.planes[name]) plot(byId('measure-plots'), samples, name);
    }
    byId('measure-text').textContent = `${short(samples[samples.length - 1].distance)} pixels from (${short(x1)}, ${short(y1)}) ` +
        `to (${short(x2)}, ${short(y2)}), ${samples.length} samples. Levels against distance in pixels.`;
  }

  function place(event) {
    const box = stage.getBoundingClientRect();
    const at = (share, size) => Math.round(Math.min(Math.max(share * size - 0.5, 0), size - 1));
    return [at((event.clientX - box.left) / box.width, width), at((event.clientY - box.top) / box.height, height)];
  }
  stage.addEventListener('pointerdown', (event) => {
    stage.setPointerCapture(event.pointerId);
    [ends[0].value, ends[1].value] = [ends[2].value, ends[3].value] = place(event);
    draw();
  });
  stage.addEventListener('pointermove', (event) => {
    if (!event.buttons) return;
    [ends[2].value, ends[3].value] = place(event);
    draw();
  });
  addEventListener('resize', draw);
  ends.forEach((input, k) => {
    input.max = k % 2 ? height - 1 : width - 1;
    input.value = [0, Math.floor(height / 2), width - 1, Math.floor(height / 2)][k];
    input.addEventListener('input', draw);
  });
  byId('measure-save').addEventListener('click', () => {
    const url = URL.createObjectURL(new Blob([toCsv(samples)], {type: 'text/csv'}));
    element('a', {href: url, download: 'profile.csv'}).click();
    setTimeout(() => URL.revokeObjectURL(url), 10000);
  });
  const pictures = report.pictures;
  select.append(...pictures.map((picture) => new Option(picture.name)));
  if (report.planes.height) select.value = 'height';
  const showPicture = () => show(byId('measure-canvas'), pictures[select.selectedIndex]);
  select.addEventListener('input', showPicture);
  showPicture();
  draw();
}
