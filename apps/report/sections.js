// Results with histograms, inputs, parameters, times, other files.

function histogram(counts, name) {
  const [w, h] = [256, 72];
  const most = d3.max(counts) || 1;
  const svg = d3.select(document.createElementNS('http://www.w3.org/2000/svg', 'svg')).attr({
    class: 'plot', viewBox: `-10 0 ${w + 20} ${h + 18}`, role: 'img',
    'aria-label': `Histogram of ${name}: most pixels at level ${counts.indexOf(most)} of 255`,
  });
  const area = d3.svg.area().x((_, k) => k).y0(h).y1((count) => h - h * Math.sqrt(count / most)).interpolate('step-before');
  svg.append('path').attr({class: 'area', d: area(counts)});
  const axis = d3.svg.axis().scale(d3.scale.linear().domain([0, 255]).range([0, w])).tickValues([0, 64, 128, 192, 255]).tickSize(4);
  svg.append('g').attr({class: 'axis', transform: `translate(0,${h})`}).call(axis);
  return svg.node();
}

function figure(picture, ...caption) {
  const canvas = element('canvas');
  canvas.setAttribute('role', 'img');
  show(canvas, picture);
  return element('figure', {}, canvas, element('figcaption', {}, ...caption));
}

// What levels of the height mean.
function levelText({height}) {
  return height ? `Levels: ${height.levels}. Comparable: ${height.comparable}. Not comparable: ${height.not_comparable}.` : '';
}

function fillResults(report) {
  const {gains = {}, offsets = {}} = report.record.recipe;
  byId('reduction').textContent = (report.reduction === 1
      ? `Pictures on this page have all ${sizeText(report)} of the results.`
      : `Pictures on this page are reduced ${report.reduction} to 1, from ${sizeText(report)} to ${sizeText(report.size)}; ` +
        `the files beside it are not.`) + ' Histograms are of all pixels, by the root of their number.';
  const chosen = report.record.chosen_gains || [];
  for (const picture of report.pictures) {
    if (!kMeanings[picture.name]) continue;
    const gain = gains[picture.name];
    const offset = offsets[picture.name];
    const scaling = picture.name === 'height' ? levelText(report.record) : gain === undefined ? '' :
        `gain ${short(gain)}${chosen.includes(picture.name) ? ' (chosen)' : ''}${offset === undefined ? '' : `, offset ${offset}`}`;
    const result = report.results[picture.name];
    byId('result-list').append(figure(
        picture, element('strong', {textContent: picture.name}), `: ${picture.text}`,
        element('div', {textContent: scaling}), ...(result ? [histogram(result.histogram, picture.name)] : [])));
  }
}

function fillInputs({inputs, record}) {
  inputs.forEach((input, k) => {
    const noted = record.inputs[k] || {};
    const exposure = noted.saturated_share === undefined ? '' :
        `mean level ${short(noted.mean_level)}, ${percent(noted.saturated_share)} saturated, ${percent(noted.black_share)} black`;
    const caption = [element('strong', {textContent: `${k + 1}: `}), input.file,
                     ...[input.missing && `Not shown: ${input.missing}`, exposure, noted.conversion]
                         .filter(Boolean).map((textContent) => element('div', {textContent}))];
    if (noted.sha256) caption.push(element('div', {className: 'hash', textContent: `SHA-256 ${noted.sha256}`}));
    byId('input-list').append(
        input.canvas ? figure({name: `photograph ${k + 1}`, text: input.file, canvas: input.canvas}, ...caption)
                     : element('figure', {}, element('figcaption', {}, ...caption)));
  });
  if (inputs.length === 0) explain(byId('inputs'), 'The inputs are not recorded.');
}

function valueText(value) {
  if (value === null) return 'none';
  if (Array.isArray(value)) return value.map(valueText).join(', ');
  if (typeof value === 'object') return Object.entries(value).map(([name, v]) => `${name} ${valueText(v)}`).join(', ');
  if (typeof value === 'boolean') return value ? 'yes' : 'no';
  return typeof value === 'number' ? short(value) : String(value);
}

// An entry for each [name, text], those without text left out.
function fillList(list, entries) {
  for (const [name, text] of entries.filter((entry) => entry[1] !== null)) {
    list.append(element('dt', {textContent: name}), element('dd', {textContent: text}));
  }
}

const kRuns = {
  uncali: 'lamps unknown, whole frame', cali: 'lamps of the fixed ring',
  partrows: 'lamps unknown, bands of rows', partcols: 'lamps unknown, strips of columns',
};

const label = (name) => name.replaceAll('_', ' ');

const sizeText = ({width, height}) => `${width} x ${height} pixels`;

// The darkest place of a flat field against its brightest: the coefficients of x^i y^j, i + j <= 4,
// in the order 1, y, .., y^4, x, x y, .., x^4, with x and y from -1 to 1 across the image.
function falloff(field) {
  const places = d3.range(-1, 1.01, 0.125);
  const levels = places.map((x) => places.map((y) => {
    let [sum, k] = [0, 0];
    for (let i = 0; i <= 4; ++i) for (let j = 0; i + j <= 4; ++j) sum += field[k++] * x ** i * y ** j;
    return sum;
  }));
  return d3.min(levels, (column) => d3.min(column)) / d3.max(levels, (column) => d3.max(column));
}

// Texts of parameters that are clearer than their JSON; null: no effect.
const kParameterTexts = {
  recipe_version: () => null,
  gains: () => null,  // beside the results
  offsets: () => null,
  run: (run) => `${run} (${kRuns[run]})`,
  band: (band, {run}) => run === 'partrows' ? `${band} rows` : run === 'partcols' ? `${band} columns` : null,
  region: (region) => region ? `${sizeText(region)} from (${region.x}, ${region.y})` : 'whole images',
  blur_radius: (radius) => radius ? `${radius} pixels` : 'none',
  iteration_cap: (cap) => cap < 0 ? 'until it converges' : String(cap),
  bits: (bits) => bits ? `${bits} in use of 16-bit samples` : null,
  white: (white) => white ? `16-bit samples of ${white}` : null,
  orientation: (orientation, {run}) => run === 'cali' ? null : orientation,
  lamp: (lamp) => lamp && `of photograph ${lamp.image + 1}, from ${short(lamp.degrees)} degrees (0 right, 90 up)`,
  flat: (fields) => fields.length === 0 ? null : 'every image is divided by the flat field of its lamp, whose darkest place has ' +
      `${listed(fields.map((field) => percent(falloff(field))))} of the light of the brightest`,
};

// The files beside the page that are not results.
function otherFiles({height, exports = {}}) {
  const view = height && height.view;
  return [
    ...(view ? [[view.file, `height for display, without its ${view.removed === 'plane' ? 'tilt' : 'tilt and bowl'}; ` +
                            `its range ignores ${view.border} pixels on each side`]] : []),
    ...Object.entries(exports).map(([name, {unit, decimate, colours, convention}]) => [name, [
      unit, decimate > 1 && `a vertex for ${decimate} x ${decimate} pixels`,
      colours && `colours: ${colours}`, convention && `convention: ${convention}`,
    ].filter(Boolean).join('; ')]),
  ];
}

const quoted = (word) => /^[\w@%+=:,./-]+$/.test(word) ? word : `'${word.replaceAll("'", "'\\''")}'`;

function fillRecord({record}) {
  const command = record.command;
  byId('command').append(...command
      ? command.flatMap((word, k) => [k ? ' ' : '', element('span', {className: 'word', textContent: quoted(word)})])
      : ['Not from the command line; the recipe that repeats it:\n' + JSON.stringify(record.recipe, null, 2)]);
  const {recipe} = record;
  const also = {...Object.fromEntries(Object.entries(record.sizes || {}).map(([name, size]) => [`${name} size`, sizeText(size)])),
                threads: record.threads, version: record.version, date: dateText(record.date), computer: record.host};
  fillList(byId('parameters'), [
    ...Object.entries(recipe).map(([name, value]) => [label(name), (kParameterTexts[name] || valueText)(value, recipe)]),
    ...Object.entries(also).filter((row) => row[1] !== undefined),
  ]);
  // Steps that were not finished when the page was written have 0.
  const times = Object.entries(record.times_ms || {}).map(([name, time]) => [name, d3.sum([].concat(time))]);
  fillList(byId('times'), times.map(([name, time]) => [label(name), time ? time.toFixed(1) : null]));
  const files = otherFiles(record);
  if (files.length) fillList(byId('file-list'), files);
  else byId('files').remove();
}

const dateText = (date) => date && date.replace('T', ' ').replace('Z', ' UTC');

function fillHeader({title, record, width, height, inputs}) {
  document.title = `${title} - Velostrix`;
  byId('title').textContent = title;
  const count = record.warnings && record.warnings.length;
  const warnings = count === undefined ? '' : ` ${count || 'No'} warning${count === 1 ? '' : 's'}.`;
  byId('summary').textContent = `Run ${record.recipe.run}, ${sizeText({width, height})}` +
      (inputs.length ? `, ${inputs.length} images` : '') + (record.date ? `, ${dateText(record.date)}` : '') +
      `, Velostrix ${record.version}.${warnings}`;
}
