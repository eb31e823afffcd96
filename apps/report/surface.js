// 3-D view: the height as a surface that turns and zooms. Drawn by three.js.

const kLongestSide = 320;  // vertices
const kHeightShare = 0.1;  // of the width, from the lowest to the highest point, not exaggerated

// Colours of 0 to 1: dark blue, green, yellow (after viridis, van der Walt and Smith, 2015).
const kColours = d3.scale.linear()
    .domain([0, 0.25, 0.5, 0.75, 1])
    .range(['#440154', '#3b528b', '#21918c', '#5ec962', '#fde725']);

// The colours that the 256 levels of a result have on the surface, as red, green, blue from 0 to 1.
function palette(name) {
  return Array.from({length: 256}, (_, level) => {
    const colour = d3.rgb(name === 'height' ? kColours(level / 255) : d3.rgb(level, level, level));
    return [colour.r / 255, colour.g / 255, colour.b / 255];
  });
}

function startSurface(report) {
  const section = byId('surface');
  const levels = report.planes.height;
  if (!levels) {
    explain(section, 'The 3-D view needs the result height: reconstruct with --outputs all.');
    return;
  }
  const stage = byId('surface-stage');
  let renderer;
  try {
    renderer = new THREE.WebGLRenderer({antialias: true, alpha: true, preserveDrawingBuffer: true});
  } catch (error) {
    explain(section, 'This browser has no WebGL, which the 3-D view needs.');
    return;
  }
  renderer.domElement.setAttribute('role', 'img');
  renderer.domElement.setAttribute('aria-label', 'The height as a surface, seen at an angle');
  stage.append(renderer.domElement);

  const {width, height} = report.size;
  const step = Math.ceil(Math.max(width, height) / kLongestSide);
  const [cols, rows] = [Math.ceil(width / step), Math.ceil(height / step)];
  const places = [];  // of the vertices in the planes
  for (let i = 0; i < rows; ++i) {
    for (let j = 0; j < cols; ++j) places.push(i * step * width + j * step);
  }
  const geometry = new THREE.PlaneBufferGeometry(1, rows / cols, Math.max(cols - 1, 1), Math.max(rows - 1, 1));
  const positions = geometry.attributes.position;
  const isGrid = positions.count === places.length;  // not in pictures one pixel wide or high
  if (isGrid) places.forEach((k, at) => positions.setZ(at, (levels[k] / 65535 - 0.5) * kHeightShare));
  geometry.computeVertexNormals();
  const colours = new THREE.BufferAttribute(new Float32Array(3 * positions.count), 3);
  geometry.setAttribute('color', colours);
  const material = new THREE.MeshPhongMaterial({vertexColors: THREE.VertexColors, side: THREE.DoubleSide, shininess: 20});
  const mesh = new THREE.Mesh(geometry, material);
  mesh.rotation.x = -Math.PI / 2;

  const scene = new THREE.Scene();
  scene.add(mesh, new THREE.AmbientLight(0xffffff, 0.35));
  const light = new THREE.DirectionalLight(0xffffff, 0.75);
  light.position.set(-1, 1, -0.5);
  scene.add(light);
  const camera = new THREE.PerspectiveCamera(35, 1, 0.01, 20);
  const controls = new THREE.OrbitControls(camera, stage);
  controls.enableKeys = false;  // they would be taken from the whole page
  controls.enableZoom = false;  // so would the wheel
  stage.addEventListener('focus', () => (controls.enableZoom = true));
  stage.addEventListener('blur', () => (controls.enableZoom = false));
  stage.addEventListener('pointerdown', () => stage.focus());

  const draw = () => renderer.render(scene, camera);
  controls.addEventListener('change', draw);

  let isNew = true;
  function fit() {
    const [w, h] = [stage.clientWidth, stage.clientHeight];
    renderer.setPixelRatio(Math.min(window.devicePixelRatio, 2));
    renderer.setSize(w, h, false);
    camera.aspect = w / h;
    camera.updateProjectionMatrix();
    if (isNew) reset();
    isNew = false;
    draw();
  }
  function reset() {
    // Near enough to fill the narrower side.
    const distance = Math.max(1.6 / Math.min(camera.aspect, 1.6), 1.3 * rows / cols);
    camera.position.set(0, 0.67 * distance, 0.74 * distance);
    controls.target.set(0, 0, 0);
    controls.update();
    draw();
  }
  // Turns by angles in radians and changes the distance by a factor.
  function move(aside, up, distance) {
    const place = new THREE.Spherical().setFromVector3(camera.position.clone().sub(controls.target));
    place.theta += aside;
    place.phi = Math.min(Math.max(place.phi + up, 0.01), Math.PI - 0.01);
    place.radius *= distance;
    camera.position.setFromSpherical(place).add(controls.target);
    controls.update();
    draw();
  }
  const kKeys = {
    ArrowLeft: [-0.1, 0, 1], ArrowRight: [0.1, 0, 1], ArrowUp: [0, -0.1, 1], ArrowDown: [0, 0.1, 1],
    '+': [0, 0, 0.9], '=': [0, 0, 0.9], '-': [0, 0, 1 / 0.9],
  };
  stage.addEventListener('keydown', (event) => {
    if (event.key !== 'Home' && !kKeys[event.key]) return;
    event.preventDefault();
    if (event.key === 'Home') reset();
    else move(...kKeys[event.key]);
  });

  function colour() {
    const name = byId('surface-colour').value;
    const plane = report.planes[name];
    const shift = name === 'height' ? 8 : 0;
    const colourOf = palette(name);
    places.forEach((k, at) => isGrid && colours.setXYZ(at, ...colourOf[plane[k] >> shift]));
    colours.needsUpdate = true;
    draw();
  }
  for (const name of ['height', 'curvature', 'factor']) {
    if (report.planes[name]) byId('surface-colour').append(new Option(name));
  }
  byId('surface-colour').addEventListener('input', colour);
  const scale = byId('surface-scale');
  const exaggerate = () => {
    mesh.scale.z = 10 ** scale.valueAsNumber;
    showFactor(byId('surface-factor'), scale, mesh.scale.z);
    draw();
  };
  scale.addEventListener('input', exaggerate);
  byId('surface-reset').addEventListener('click', () => {
    scale.value = 0;
    exaggerate();
    reset();
  });
  colour();
  exaggerate();
  new ResizeObserver(fit).observe(stage);
}
