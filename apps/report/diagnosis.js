// Diagnosis: what was measured in the images and on the slopes, in words.
//
// Records of older versions lack some values; these are not mentioned. null means not measured.

const percent = (share) => `${Number((100 * share).toPrecision(3))}\u00a0%`;
const pixels = (count) => `${Number(count.toPrecision(2))}\u00a0pixels`;
const times = (factor) => factor < 10 ? factor.toFixed(1) : factor.toFixed(0);

function listed(words) {
  return words.length < 2 ? words.join('') : `${words.slice(0, -1).join(', ')} and ${words[words.length - 1]}`;
}

function lampText({singular_values: values = []}) {
  if (values.length < 3 || !(values[0] > 0)) return null;
  const [first, second, rest] = values.slice(1).map((value) => value / values[0]);
  const text = `Against the brightness that all images share, relief in the two directions has ` +
      `${percent(first)} and ${percent(second)}`;
  const kRounding = 1e-5;  // one image is made of the others
  return rest > kRounding ? `${text}; what is left, noise and shadows, has ${percent(rest)}. Relief in the second ` +
                            `direction is ${times(second / rest)} times that.`
                          : `${text}.`;
}

function ringText({unexplained_share: share, recipe}) {
  if (share) {
    return `Lamps of the ring leave ${percent(share.by_ring)} of the images unexplained; any lamps would leave ` +
           `${percent(share.by_any_lamps)}.`;
  }
  return share === null && recipe.run === 'cali'
      ? 'These images do not show whether the lamps are those of the ring.' : null;
}

function motionText({shifts_pixels: shifts}) {
  if (!shifts) return null;
  const measured = shifts.filter((shift) => shift !== null);
  if (measured.length === 0) return 'The photographs do not show whether anything moved.';
  const farthest = Math.max(...measured);
  const image = `photograph ${shifts.indexOf(farthest) + 1}`;
  const open = shifts.flatMap((shift, k) => shift === null ? [`photograph ${k + 1}`] : []);
  return (farthest < 2 ? `Nothing moved by 2 pixels or more; ${image} is shifted most, by ${pixels(farthest)}.`
                       : `Against most photographs, ${image} moved farthest, by ${pixels(farthest)}.`) +
         (open.length ? ` The shift of ${listed(open)} cannot be measured.` : '');
}

function noiseText({noise_share: share}) {
  if (share === undefined) return null;
  return share === null ? 'How much of the curvature is noise of the camera was not measured.'
                        : `${percent(share)} of the curvature is noise of the camera.`;
}

function orientationText({orientation: found, recipe}) {
  if (!found) {
    return found === null && recipe.run !== 'cali'
        ? 'Slopes are shown unchanged: whether they are mirrored, turned or inverted was not measured.' : null;
  }
  const done = listed([found.is_mirrored && 'mirrored', found.is_turned && 'turned by a quarter',
                       found.is_inverted && 'inverted'].filter(Boolean));
  const turn = Math.round(Math.abs(found.turn_degrees));
  return [
    done ? `Slopes were ${done}, which was corrected.` : 'Slopes were neither mirrored nor turned.',
    !found.is_clear && 'Whether they are mirrored is not clear.',
    `Unchanged, ${percent(found.curl_as_is)} of their derivatives fit no surface; mirrored, ${percent(found.curl_mirrored)}.`,
    turn > 1 && `They remain turned by ${turn} degrees, ${found.turn_degrees > 0 ? 'counter-clockwise' : 'clockwise'}.`,
    found.has_mirrored_curvature && 'The curvature comes from the mirrored slopes, where it shows more.',
  ].filter(Boolean).join(' ');
}

function signText({orientation: found, recipe}) {
  if (!found) return null;
  return found.is_sign_open
      ? 'Open: bumps may appear as dents. The direction of one lamp determines the sign (option lamp).'
      : recipe.lamp ? `Determined by the lamp of photograph ${recipe.lamp.image + 1}.` : null;
}

function maskText({mask}) {
  if (!mask) return null;
  const which = mask.file === 'auto' ? 'Pixels that no lamp lights are left out' : `Pixels that are 0 in ${mask.file} are left out`;
  return `${which}, ${percent(1 - mask.kept_share)} of all: they are 128 in the results, 0 in the height.`;
}

// What limits may be set to, in a batch.
function measureText({measures, batch}) {
  if (!measures) return null;
  const {curvature_share: share, height_range: range} = measures;
  return [
    share !== null && `${percent(share)} of the pixels have a curvature more than ${batch.curvature_level} levels from its offset.`,
    range !== null && `From the lowest to the highest place: ${short(range)}, in slope times pixels.`,
  ].filter(Boolean).join(' ');
}

function fillDiagnosis({record}) {
  const {warnings} = record;
  byId('warnings').append(...(warnings || []).map(
      (text) => element('li', {textContent: `Warning: ${text}`, className: 'warning'})));
  const rows = [
    ['Warnings', !warnings ? 'The images were not diagnosed.' : warnings.length ? null : 'None.'],
    ['Lamps', lampText(record)], ['Ring', ringText(record)], ['Motion', motionText(record)], ['Noise', noiseText(record)],
    ['Orientation', orientationText(record)], ['Sign', signText(record)], ['Mask', maskText(record)],
    ['Measures', measureText(record)],
  ];
  fillList(byId('findings'), rows);
}
