// The data of the page: the record of the run and its pictures, decoded to planes of numbers.
'use strict';

const byId = (id) => document.getElementById(id);

function element(tag, properties = {}, ...children) {
  const made = Object.assign(document.createElement(tag), properties);
  made.append(...children);
  return made;
}

// At most four significant digits.
const short = (value) => String(Number(Number(value).toPrecision(4)));

// The alternative texts of the results.
const kMeanings = {
  factor: 'brightness of the part: its print without relief',
  curvature: 'where slopes change: edges of relief, bright or dark',
  magnitude: 'where slopes change, without sign',
  channel0: 'slope along the rows: left flanks of bumps bright, right flanks dark',
  channel1: 'slope across the rows: lower flanks of bumps bright, upper flanks dark',
  channel2: 'how much the surface faces the camera; in uncalibrated runs its brightness',
  normal: 'the three channels as one colour picture',
  height: 'relative height: high is bright',
};

async function decode(base64, type) {
  const text = atob(base64);
  const bytes = new Uint8Array(text.length);
  for (let k = 0; k < text.length; ++k) bytes[k] = text.charCodeAt(k);
  // The levels unchanged, independent of the screen.
  return createImageBitmap(new Blob([bytes], {type}), {colorSpaceConversion: 'none'});
}

// A canvas of the size of the pictures.
function newCanvas(size) {
  const canvas = element('canvas', {width: size.width, height: size.height});
  return [canvas, canvas.getContext('2d', {willReadFrequently: true})];
}

async function decodeBytes(png, size) {
  const [, context] = newCanvas(size);
  context.drawImage(await decode(png, 'image/png'), 0, 0);
  const pixels = context.getImageData(0, 0, size.width, size.height).data;
  return Uint8Array.from({length: size.width * size.height}, (_, k) => pixels[4 * k]);
}

// A picture of three planes of levels; of one, given thrice.
function paint(canvas, size, red, green, blue) {
  canvas.width = size.width;
  canvas.height = size.height;
  const image = new ImageData(size.width, size.height);
  for (let k = 0; k < red.length; ++k) {
    image.data[4 * k] = red[k];
    image.data[4 * k + 1] = green[k];
    image.data[4 * k + 2] = blue[k];
    image.data[4 * k + 3] = 255;
  }
  canvas.getContext('2d').putImageData(image, 0, 0);
}

// record: run.json. size: of the pictures on the page. planes: levels by name of the result,
// 0 to 65535 for the height. pictures: [{name, text, canvas}], results, then inputs.
async function loadReport() {
  const data = JSON.parse(byId('data').textContent);
  const size = {width: data.page_width, height: data.page_height};
  const report = {...data, size, planes: {}, pictures: []};
  const add = (name, text) => {
    const [canvas] = newCanvas(size);
    report.pictures.push({name, text, canvas});
    return canvas;
  };
  const results = Object.entries(data.results);
  const decoded = await Promise.all(results.map(([, result]) => Promise.all(
      [result.png, result.low].filter(Boolean).map((png) => decodeBytes(png, size)))));
  results.forEach(([name], at) => {
    const [high, low] = decoded[at];
    report.planes[name] = low ? Uint16Array.from(high, (level, k) => 256 * level + low[k]) : high;
    paint(add(name, kMeanings[name]), size, high, high, high);
  });
  const {channel0, channel1, channel2} = report.planes;
  if (data.normal) paint(add('normal', kMeanings.normal), size, channel2, channel1, channel0);
  await Promise.all(data.inputs.map(async (input, k) => {
    input.name = `photograph ${k + 1}`;
    if (!input.jpeg) return;
    [input.canvas] = newCanvas(size);
    input.canvas.getContext('2d').drawImage(await decode(input.jpeg, 'image/jpeg'), 0, 0);
  }));
  data.inputs.forEach((input) => {
    if (input.canvas) report.pictures.push({name: input.name, text: input.file, canvas: input.canvas});
  });
  return report;
}

function show(canvas, picture) {
  canvas.width = picture.canvas.width;
  canvas.height = picture.canvas.height;
  canvas.getContext('2d').drawImage(picture.canvas, 0, 0);
  canvas.setAttribute('aria-label', `${picture.name}: ${picture.text}`);
}

// Beside a slider of powers, and read out with it.
function showFactor(output, slider, factor) {
  output.textContent = `× ${factor.toFixed(1)}`;
  slider.setAttribute('aria-valuetext', `${factor.toFixed(1)} times`);
}

// A section that cannot be shown says why.
function explain(section, reason) {
  for (const part of section.querySelectorAll('.controls, .pair, .stage, .hint')) part.remove();
  section.append(element('p', {className: 'hint', textContent: reason}));
}
