  'use strict';
  const results = JSON.parse(document.getElementById('results').textContent);
  document.getElementById('about').textContent =
      `${results.processor}, ${results.cores} cores; commit ${results.commit}; ${results.date}`;

  const html = (name, text, parent = document.body) => {
    const node = Object.assign(document.createElement(name), {textContent: text});
    parent.append(node);
    return node;
  };
  const svg = (name, attributes, text) => {
    const node = document.createElementNS('http://www.w3.org/2000/svg', name);
    for (const [key, value] of Object.entries(attributes)) node.setAttribute(key, value);
    if (text !== undefined) node.textContent = text;
    return node;
  };
