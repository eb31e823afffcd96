// Compare: two pictures, one left, one right of a border that moves.

function startComparing(report) {
  const {pictures} = report;
  if (pictures.length < 2) {
    explain(byId('compare'), 'There are no two pictures to compare.');
    return;
  }
  const [left, right, border, stage] = ['left', 'right', 'border', 'stage'].map((name) => byId(`compare-${name}`));
  const names = pictures.map((picture) => picture.name);
  for (const select of [left, right]) select.append(...names.map((name) => new Option(name)));
  const photograph = names.indexOf('photograph 1');
  left.selectedIndex = photograph < 0 ? 0 : photograph;
  right.selectedIndex = Math.max(names.indexOf('curvature'), left.selectedIndex === 0 ? 1 : 0);

  function draw() {
    show(byId('compare-over'), pictures[left.selectedIndex]);
    show(byId('compare-under'), pictures[right.selectedIndex]);
  }
  function cut() {
    byId('compare-over').style.clipPath = `inset(0 ${100 - border.valueAsNumber}% 0 0)`;
    byId('compare-mark').style.left = `${border.value}%`;
  }
  function moveToPointer(event) {
    const box = stage.getBoundingClientRect();
    border.value = 100 * (event.clientX - box.left) / box.width;
    cut();
  }
  stage.addEventListener('pointerdown', (event) => {
    stage.setPointerCapture(event.pointerId);
    moveToPointer(event);
  });
  stage.addEventListener('pointermove', (event) => event.buttons && moveToPointer(event));
  for (const select of [left, right]) select.addEventListener('input', draw);
  border.addEventListener('input', cut);
  draw();
  cut();
}
