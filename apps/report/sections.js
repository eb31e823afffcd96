// What went in and came out: diagnosis, results with histograms, inputs, parameters, times.

const percent = (share) => `${short(100 * share)} %`;

function listItems(list, texts, className = '') {
  list.append(...texts.map((textContent) => element('li', {textContent, className})));
}

function fillDiagnosis({record}) {
  const warnings = record.warnings || [];
  listItems(byId('warnings'), warnings.map((text) => `Warning: ${text}`), 'warning');
  const findings = warnings.length ? [] : ['The images gave no reason for a warning.'];
  const values = record.singular_values || [];
  if (values.length > 2 && values[0] > 0) {
    findings.push(`Difference of the lamps: against the brightness that all images share, the two directions of ` +
                  `relief have ${percent(values[1] / values[0])} and ${percent(values[2] / values[0])}` +
                  (values.length > 3 ? `; what is left, noise and shadows, ${percent(values[3] / values[0])}.` : '.'));
  }
  const share = record.unexplained_share;
  if (share) {
    findings.push(`Lamps of the ring leave ${percent(share.by_ring)} of the images unexplained; any lamps would leave ` +
                  `${percent(share.by_any_lamps)}.`);
  }
  listItems(byId('findings'), findings);
}

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

function fillResults(report) {
  const {recipe} = report.record;
  byId('reduction').textContent = report.reduction === 1
      ? `Pictures on this page have all ${report.width} x ${report.height} pixels of the results.`
      : `Pictures on this page are reduced ${report.reduction} to 1, from ${report.width} x ${report.height} pixels ` +
        `to ${report.size.width} x ${report.size.height}; the files beside it are not. Histograms are of all pixels, by the root of their number.`;
  const chosen = report.record.chosen_gains || [];
  for (const picture of report.pictures) {
    if (!kMeanings[picture.name]) continue;
    const gain = recipe.gains[picture.name];
    const offset = recipe.offsets[picture.name];
    const scaling = gain === undefined ? '' :
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
  return typeof value === 'number' ? short(value) : String(value);
}

function fillTable(table, entries, className = '') {
  for (const [name, value] of entries) {
    table.append(element('tr', {}, element('th', {scope: 'row', textContent: name.replaceAll('_', ' ')}),
                         element('td', {className, textContent: valueText(value)})));
  }
}

const quoted = (word) => /^[\w@%+=:,./-]+$/.test(word) ? word : `'${word.replaceAll("'", "'\\''")}'`;

function fillRecord({record}) {
  const command = record.command;
  byId('command').textContent = command
      ? command.map(quoted).join(' ')
      : 'Not from the command line; the recipe that repeats it:\n' + JSON.stringify(record.recipe, null, 2);
  const {recipe_version: _, ...recipe} = record.recipe;
  fillTable(byId('parameters'), [
    ...Object.entries(recipe), ...Object.entries(record.sizes || {}).map(([name, size]) => [`${name} size`, size]),
    ...['threads', 'version', 'date', 'host'].filter((name) => record[name] !== undefined).map((name) => [name, record[name]]),
  ]);
  // What was not over when the page was written is 0.
  fillTable(byId('times'), Object.entries(record.times_ms || {}).filter(([, time]) => time !== 0), 'number');
}

function fillHeader({title, record, width, height, inputs}) {
  document.title = `${title} - Velostrix`;
  byId('title').textContent = title;
  const warnings = (record.warnings || []).length;
  byId('summary').textContent = `Run ${record.recipe.run}, ${width} x ${height} pixels` +
      (inputs.length ? `, ${inputs.length} images` : '') + (record.date ? `, ${record.date.replace('T', ' ').replace('Z', ' UTC')}` : '') +
      `, Velostrix ${record.version}. ${warnings === 0 ? 'No warnings' : warnings === 1 ? '1 warning' : `${warnings} warnings`}.`;
}
